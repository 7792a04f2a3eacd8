#include <group/TaskGroup.h>
#include <mox/TurnLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <support/ManualClock.h>
#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect_pipe.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/readable_pipe.hpp>
#include <boost/asio/writable_pipe.hpp>
#include <gmock/gmock.h>

#include <sstream>

// What an application may expect of a scheduler, wherever it stands: the same tests run over each driver of a
// root, and over a group inside each.

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using Kel::TaskScheduler;
using Kel::TimerTask;
using Mox::endOfTime;
using Mox::Ptr;
using Mox::Seconds;
using Mox::U32;
using Mox::U64;
using testing::ElementsAre;
using TestSupport::OnRun;

struct Place {
    char const* name;
    bool isOnActivityManager;
    bool isGroup;
};

Place const places[] = {{"EventLoop", false, false},
                        {"ActivityManager", true, false},
                        {"GroupOnEventLoop", false, true},
                        {"GroupOnActivityManager", true, true}};

/// A scheduler at its place with its loop, and tasks that write their names down.
struct Stage {
    explicit Stage(Place const& place) {
        if (!place.isOnActivityManager)
            loop = Kel::EventLoop::EventLoopIs();
        if (loop)
            root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
        else
            root = Kel::TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");
        scheduler = root;
        if (place.isGroup)
            scheduler = Kel::TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
    }
    /// The owner lets go of everything; only the loop stays.
    void release() {
        workers.clear();
        scheduler = nullptr;
        root = nullptr;
    }

    // The loop

    U64 turn() { return loop ? loop->runOnce() : timers.manager->runOnce(); }
    void turnUntilIdle() {
        while (turn() > 0) {
        }
    }
    void moveRoot() {
        if (auto const onLoop = dynamic_cast<Kel::TaskSchedulerEventLoop*>(root.ptr()))
            onLoop->clockIs(Kel::TimerEvent::TimerEventIs(loop));
        else
            dynamic_cast<Kel::TaskSchedulerMoxActivity&>(*root).clockIs(Mox::VirtualClock::VirtualClockIs());
    }
    Seconds nextDue() const { return loop ? loop->nextDue() : timers.manager->nextDue(); }
    Mox::TurnLoop& turnLoop() const { return loop ? loop->turnLoop() : timers.manager->turnLoop(); }

    // Tasks

    Ptr<TimerTask> task(std::string const& name, TaskPriority priority = TaskPriority::normal,
                        std::function<void()> then = {}) {
        auto const t = TimerTask::TimerTaskIs(scheduler, priority, name);
        workers.push_back(new OnRun(t, [this, name, then] {
            order += (order.empty() ? "" : " ") + name;
            times.push_back(Mox::now());
            if (then)
                then();
        }));
        return t;
    }
    /// Schedules new tasks whose first letter is the priority; those that end with "+" schedule themselves
    /// until there were that many runs.
    void schedule(std::string const& names, std::size_t runs = 0) {
        std::istringstream stream(names);
        for (std::string name; stream >> name;) {
            U32 const priority = static_cast<U32>(std::string("ahnls").find(name[0]));
            auto const t = task(name, TaskPriority::PriorityEnumInstance(priority));
            Task* const raw = t.ptr();
            if (name.back() == '+')
                workers.push_back(new OnRun(t, [this, raw, runs] {
                    if (times.size() < runs)
                        raw->scheduleTask();
                }));
            t->scheduleTask();
        }
    }
    std::string takeOrder() {
        times.clear();
        return std::exchange(order, "");
    }
    /// The events whose text ends so, oldest first.
    std::vector<std::string> events(std::string const& ending) const {
        std::vector<std::string> found;
        for (auto const& event : root->history())
            if (std::string const text = event.display(); text.ends_with(ending))
                found.insert(found.begin(), text);
        return found;
    }

    TestSupport::ManualClock steady;
    TestSupport::VirtualTime timers;
    Ptr<Kel::EventLoop> loop; // null: the activity manager's own
    Ptr<Kel::TaskSchedulerRoot> root;
    Ptr<TaskScheduler> scheduler;
    std::vector<Ptr<OnRun>> workers;
    std::string order;
    std::vector<Seconds> times; // one for each run
};

struct BehaviourSuite : testing::TestWithParam<Place>, Stage {
    BehaviourSuite() : Stage(GetParam()) {}
};

auto nameOf(testing::TestParamInfo<Place> const& info) { return info.param.name; }
INSTANTIATE_TEST_SUITE_P(At, BehaviourSuite, testing::ValuesIn(places), nameOf);

std::string repeated(int count, std::string const& text) {
    std::string result;
    while (count-- > 0)
        result += (result.empty() ? "" : " ") + text;
    return result;
}

TEST_P(BehaviourSuite, RunsByPriorityAndInTheOrderOfArrival) {
    struct {
        char const* names;
        std::size_t runs;
        std::string order;
    } const cases[] = {
        {"s1 l1 n1 h1 a1 n2 h2", 0, "a1 h1 h2 n1 n2 l1 s1"},
        {"n1+ n2+ n3+", 6, "n1+ n2+ n3+ n1+ n2+ n3+ n1+ n2+"}, // those queued at the end run too
        {"h+ n+", 30, repeated(3, repeated(9, "h+") + " n+") + " h+"},
        {"a+ n l", 20, repeated(20, "a+") + " n l"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.names);
        workers.clear();
        schedule(c.names, c.runs);
        turnUntilIdle();
        EXPECT_EQ(c.order, takeOrder());
    }
}

TEST_P(BehaviourSuite, RequestsWithinATurnCollapseIntoOneCallback) {
    for (int request = 0; request < 3; ++request)
        scheduler->requestSchedulerRun();
    EXPECT_EQ(1u, turn());
    turnUntilIdle();

    auto const t = task("t");
    for (int request = 0; request < 3; ++request) {
        t->scheduleTask();
        scheduler->requestSchedulerRun();
    }
    EXPECT_EQ(1u, turn());
    turnUntilIdle();
    EXPECT_EQ("t", takeOrder());
    EXPECT_EQ(0u, turn()) << "an idle scheduler costs nothing";
}

TEST_P(BehaviourSuite, SuspendedRunsNothingAndGoesOnWhenResumed) {
    root->suspendedIs(true);
    schedule("n1 n2");
    turnUntilIdle();
    EXPECT_EQ("", takeOrder());
    EXPECT_EQ(1u, events("RunIgnoredWhileSuspended").size());
    EXPECT_EQ(2u, scheduler->runnableTaskCount(TaskPriority::normal));
    root->suspendedIs(false);
    turnUntilIdle();
    EXPECT_EQ("n1 n2", takeOrder());
}

TEST_P(BehaviourSuite, MayBeSuspendedInsideATask) {
    auto const first = task("first", TaskPriority::high, [&] { root->suspendedIs(true); });
    auto const timer = task("timer");
    first->scheduleTask();
    timer->scheduleTaskDelay(1.0);
    schedule("n1 n2");
    turnUntilIdle();
    timers.clock->nowInc(1.0);
    turnUntilIdle();
    EXPECT_EQ("first", takeOrder());
    EXPECT_EQ(GetParam().isGroup ? 2u : 1u, events("RunIgnoredWhileSuspended").size());
    EXPECT_EQ(3u, scheduler->runnableTaskCount(TaskPriority::normal)) << "the timer has queued its task";
    root->suspendedIs(false);
    turnUntilIdle();
    EXPECT_EQ("n1 n2 timer", takeOrder());
}

TEST_P(BehaviourSuite, SwitchedOnAgainRunsWhatCameDueMeanwhile) {
    scheduler->hasNotificationActiveIs(false);
    schedule("n");
    turnUntilIdle();
    EXPECT_EQ("", takeOrder());
    scheduler->hasNotificationActiveIs(true);
    turnUntilIdle();
    EXPECT_EQ("n", takeOrder());
}

TEST_P(BehaviourSuite, RootThatIsMovedToAnotherClockKeepsItsRequest) {
    schedule("n");
    moveRoot();
    turnUntilIdle();
    EXPECT_EQ("n", takeOrder());
}

TEST_P(BehaviourSuite, TimerTasksRunAtTheFirstTickNotBeforeTheirTime) {
    timers.clock->autoAdvanceIs(true);
    int left = 3;
    TimerTask* rearmed = nullptr;
    auto const again = task("again", TaskPriority::normal, [&] {
        if (--left > 0)
            rearmed->scheduleTaskDelay(2.0);
    });
    rearmed = again.ptr();
    auto const late = task("late"), early = task("early"), same = task("same", TaskPriority::high);
    auto const moved = task("moved"), stopped = task("stopped"), atOnce = task("atOnce");
    late->scheduleTaskDelay(5.004);
    again->scheduleTaskDelay(0.5);
    early->scheduleTaskDelay(0.001);
    same->scheduleTaskDelay(0.5);
    moved->scheduleTaskDelay(1.0);
    moved->scheduleTaskDelay(3.0);
    stopped->scheduleTaskDelay(1.0);
    stopped->stopTimerTask();
    atOnce->scheduleTaskDelay(1.0);
    atOnce->scheduleTask();
    turnLoop().runUntil(10.0, false);
    EXPECT_EQ("atOnce early same again again moved again late", order);
    EXPECT_THAT(times, ElementsAre(0.0, 0.01, 0.5, 0.5, 2.5, 3.0, 4.5, 5.01));
}

TEST_P(BehaviourSuite, BusyTasksLeaveRoomForTimersAndDescriptors) {
    boost::asio::readable_pipe reader(turnLoop().ioContext());
    boost::asio::writable_pipe writer(turnLoop().ioContext());
    boost::asio::connect_pipe(reader, writer);
    char byte = 0;
    std::string served;
    reader.async_read_some(boost::asio::buffer(&byte, 1),
                           [&](boost::system::error_code, std::size_t) { served += 'd'; });
    auto const timer = task("timer", TaskPriority::high, [&] { served += 't'; });
    int runs = 0, runsUntilServed = 0;
    TimerTask* rescheduled = nullptr;
    auto const busy = task("busy", TaskPriority::normal, [&] {
        steady.advance(3ms);
        if (++runs == 100) {
            writer.write_some(boost::asio::buffer("x", 1));
            timers.clock->nowInc(1.0);
        }
        if (served.size() < 2)
            runsUntilServed = runs;
        if (runs < 1000)
            rescheduled->scheduleTask();
        else
            turnLoop().stop();
    });
    rescheduled = busy.ptr();
    timer->scheduleTaskDelay(1.0);
    busy->scheduleTask();
    turnLoop().run(false);
    EXPECT_THAT(served, testing::UnorderedElementsAre('d', 't'));
    EXPECT_LT(runsUntilServed, 100 + 20) << "within two quanta and a little";
}

TEST_P(BehaviourSuite, RecordsARunInTheHistoryAndInTheStatistics) {
    auto t = task("t", TaskPriority::normal, [&] { steady.advance(45ms); });
    t->scheduleTask();
    steady.advance(7ms);
    turnUntilIdle();
    EXPECT_THAT(events("N t"), ElementsAre("schedule   N t", "busy       N t", "run start  N t",
                                           "run end    N t", "idle       N t"));
    auto const stat = t->getStats();
    EXPECT_EQ(1u, stat.taskRun());
    EXPECT_EQ(0.007, stat.taskLastSchedulingLatency());
    EXPECT_EQ(0.045, stat.taskTotalRunTime());
    EXPECT_EQ(1u, stat.taskQuantumViolation200());
    EXPECT_EQ(0.007, scheduler->schedulerMaxSchedulerSlip());

    workers.clear();
    t = nullptr;
    EXPECT_EQ(0.045, scheduler->deadTaskStats("t")->taskTotalRunTime());
    EXPECT_EQ(1u, scheduler->runTaskCount(TaskPriority::normal));
    EXPECT_EQ(1u, scheduler->queueStats().priority(TaskPriority::normal)->deadTasks());
}

TEST_P(BehaviourSuite, ResetsItsStatisticsInATaskOfItsOwn) {
    auto const t = task("t");
    for (int run = 0; run < 3; ++run) {
        t->scheduleTask();
        turnUntilIdle();
    }
    TimerTask::TimerTaskIs(scheduler, TaskPriority::low, "dead");
    EXPECT_EQ(3u, scheduler->runTaskCount(TaskPriority::normal));
    scheduler->resetStats();
    EXPECT_EQ(3u, t->taskRun()) << "not yet";
    turnUntilIdle();
    EXPECT_EQ(0u, t->taskRun());
    EXPECT_EQ(0u, scheduler->runTaskCount(TaskPriority::normal));
    EXPECT_EQ(0u, scheduler->deadTaskStats().size());
}

TEST_P(BehaviourSuite, TasksKeepItGoingWhenItsOwnerHasLetGo) {
    schedule("n1 n2+", 4);
    scheduler = nullptr;
    root = nullptr;
    turnUntilIdle();
    EXPECT_EQ("n1 n2+ n2+ n2+", takeOrder());
    EXPECT_LT(nextDue(), endOfTime) << "the history is still to be trimmed";
    workers.clear();
    EXPECT_EQ(endOfTime, nextDue());
}

/// A suite of the same places whose cases have a stage each.
class BehaviourAtTheEnd : public testing::TestWithParam<Place> {};
INSTANTIATE_TEST_SUITE_P(At, BehaviourAtTheEnd, testing::ValuesIn(places), nameOf);

TEST_P(BehaviourAtTheEnd, NothingStaysInTheLoopWhereverItIsReleased) {
    struct {
        char const* what;
        void (*act)(Stage&);
        char const* order;
    } const cases[] = {
        {"new", [](Stage&) {}, ""},
        {"idle", [](Stage& s) { s.schedule("n1"), s.turnUntilIdle(); }, "n1"},
        {"with a run requested", [](Stage& s) { s.schedule("n1 n2"); }, ""},
        {"with a timer armed", [](Stage& s) { s.task("t")->scheduleTaskDelay(1.0); }, ""},
        {"suspended", [](Stage& s) { s.root->suspendedIs(true), s.schedule("n1"), s.turnUntilIdle(); }, ""},
        {"with a reset requested", [](Stage& s) { s.scheduler->resetStats(); }, ""},
        {"with its second reset requested",
         [](Stage& s) { s.scheduler->resetStats(), s.turnUntilIdle(), s.scheduler->resetStats(); }, ""},
        {"inside a run",
         [](Stage& s) {
             s.task("t", TaskPriority::high, [&s] { s.release(); })->scheduleTask();
             s.schedule("n1 n2");
             s.turnUntilIdle();
         },
         "t"},
        {"inside a run that a timer began",
         [](Stage& s) {
             s.task("t", TaskPriority::high, [&s] { s.release(); })->scheduleTaskDelay(1.0);
             s.schedule("n1+", 3);
             s.turnUntilIdle();
             s.timers.clock->nowInc(1.0);
             s.turnUntilIdle();
         },
         "n1+ n1+ n1+ t"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        Stage stage(GetParam());
        c.act(stage);
        stage.release();
        stage.timers.clock->nowInc(2000.0);
        EXPECT_EQ(0u, stage.turn());
        EXPECT_EQ(endOfTime, stage.nextDue());
        EXPECT_EQ(c.order, stage.takeOrder());
    }
}

} // namespace
