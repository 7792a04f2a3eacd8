#include <group/TaskGroup.h>
#include <mox/TurnLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <support/ManualClock.h>
#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>

#include <cmath>
#include <sstream>

// What an application may expect of a scheduler, wherever it stands: the same tests run over each driver of a
// root, and over a group inside each.

namespace {

using namespace TestSupport;

struct Place {
    char const* name;
    bool isOnActivityManager, isGroup;
};
Place const places[] = {{"EventLoop", false, false},
                        {"ActivityManager", true, false},
                        {"GroupOnEventLoop", false, true},
                        {"GroupOnActivityManager", true, true}};

/// A scheduler at its place with its loop, and tasks that write their names down.
struct Stage {
    explicit Stage(Place const& place) {
        if (!place.isOnActivityManager)
            loop = EventLoop::EventLoopIs();
        root = loop ? Ptr<TaskSchedulerRoot>(TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop))
                    : TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");
        scheduler = root;
        if (place.isGroup)
            scheduler = TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
    }
    /// The owner lets go of everything; only the loop stays.
    void release() {
        workers.clear();
        scheduler = nullptr;
        root = nullptr;
    }

    // The loop

    TurnLoop& turnLoop() const { return loop ? loop->turnLoop() : timers.manager->turnLoop(); }
    U64 turn() { return turnLoop().runOnce(); }
    Seconds nextDue() const { return turnLoop().nextDue(); }
    void turnUntilIdle() {
        while (turn() > 0) {
        }
    }
    void moveRoot() {
        if (auto const onLoop = dynamic_cast<TaskSchedulerEventLoop*>(root.ptr()))
            onLoop->clockIs(TimerEvent::TimerEventIs(loop));
        else
            dynamic_cast<TaskSchedulerMoxActivity&>(*root).clockIs(VirtualClock::VirtualClockIs());
    }

    // Tasks

    Ptr<TimerTask> task(std::string const& name, TaskPriority priority = TaskPriority::normal,
                        std::function<void()> then = {}) {
        auto const t = TimerTask::TimerTaskIs(scheduler, priority, name);
        workers.push_back(new OnRun(t, [this, name, then] {
            order += (order.empty() ? "" : " ") + name;
            times.push_back(now());
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
    ManualClock steady;
    VirtualTime timers;
    Ptr<EventLoop> loop; // null: the activity manager's own
    Ptr<TaskSchedulerRoot> root;
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

TEST_P(BehaviourSuite, RunsByPriorityInTheOrderOfArrivalAndByTheBumpRule) {
    struct {
        char const* names;
        std::size_t runs;
        std::string order;
    } const cases[] = {
        {"s1 l1 n1 h1 a1 n2 h2", 0, "a1 h1 h2 n1 n2 l1 s1"},
        {"n1+ n2+ n3+", 6, "n1+ n2+ n3+ n1+ n2+ n3+ n1+ n2+"},         // those queued at the end run too
        {"h+ n+", 30, repeated(3, repeated(9, "h+") + " n+") + " h+"}, // 8 × 9 > 64
        {"h+ l+", 66, repeated(65, "h+") + " l+ h+"},                  // 1 × 65 > 64
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
    auto const t = task("t");
    for (int round = 0; round < 2; ++round) { // without and with something to run
        for (int request = 0; request < 3; ++request) {
            if (round == 1)
                t->scheduleTask();
            scheduler->requestSchedulerRun();
        }
        EXPECT_EQ(1u, turn());
        turnUntilIdle();
    }
    EXPECT_EQ("t", takeOrder());
    EXPECT_EQ(0u, turn()) << "an idle scheduler costs nothing";
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
    auto const ignored = [](auto const& event) {
        return event.display().ends_with("RunIgnoredWhileSuspended");
    };
    EXPECT_EQ(GetParam().isGroup ? 2 : 1, std::ranges::count_if(root->history(), ignored));
    EXPECT_EQ(3u, scheduler->runnableTaskCount(TaskPriority::normal)) << "the timer has queued its task";
    root->suspendedIs(false);
    turnUntilIdle();
    EXPECT_EQ("n1 n2 timer", takeOrder());
}

TEST_P(BehaviourSuite, RequestOutlivesBeingSwitchedOffAndAMoveOfTheRootToAnotherClock) {
    scheduler->hasNotificationActiveIs(false);
    schedule("n1");
    turnUntilIdle();
    EXPECT_EQ("", takeOrder());
    scheduler->hasNotificationActiveIs(true);
    turnUntilIdle();
    EXPECT_EQ("n1", takeOrder());
    schedule("n2");
    moveRoot();
    turnUntilIdle();
    EXPECT_EQ("n2", takeOrder());
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

Seconds firstTickNotBefore(Seconds due) {
    Seconds tick = std::floor(due * 100.0) - 1.0;
    while (tick * 0.01 < due)
        ++tick;
    return tick * 0.01;
}

TEST_P(BehaviourSuite, UnderVirtualTimeFarTimersKeepTheirTicksAndAllThatIsDueAtTheEndIsDone) {
    timers.clock->autoAdvanceIs(true);
    root->trimHistoryEnabledIs(false);
    std::vector<Seconds> due;
    for (Seconds const delay : {0.01, 86399.995, 86400.0, 1e6 + 0.003, 1e7}) {
        due.push_back(firstTickNotBefore(delay));
        task("far")->scheduleTaskDelay(delay);
    }
    auto const t = task("t");
    Ptr<OnRun> const more = new OnRun(t, [&] { t->taskRun() < 1000 ? t->scheduleTask() : void(); });
    t->scheduleTaskDelay(1e7);
    turnLoop().runUntil(1e7 - 0.001, false);
    EXPECT_EQ(std::vector(due.begin(), due.end() - 1), times);
    turnLoop().runUntil(1e7, false);
    EXPECT_EQ(1000u, t->taskRun()) << "many more than a loop takes at a time";
    EXPECT_EQ(1e7, now());
    EXPECT_EQ(std::vector(1001, 1e7), std::vector(times.begin() + 4, times.end()));
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
        {"with a run requested", [](Stage& s) { s.schedule("n1 n2"); }, ""},
        {"with a timer armed", [](Stage& s) { s.task("t")->scheduleTaskDelay(1.0); }, ""},
        {"suspended", [](Stage& s) { s.root->suspendedIs(true), s.schedule("n1"), s.turnUntilIdle(); }, ""},
        {"switched off",
         [](Stage& s) { s.schedule("n1"), s.root->hasNotificationActiveIs(false), s.turnUntilIdle(); }, ""},
        {"a zombie", [](Stage& s) { s.root->moxDoZombieReactors(true), s.schedule("n1"), s.turnUntilIdle(); },
         ""},
        {"with its second reset requested",
         [](Stage& s) { s.scheduler->resetStats(), s.turnUntilIdle(), s.scheduler->resetStats(); }, ""},
        {"inside a run",
         [](Stage& s) {
             s.task("t", TaskPriority::high, [&s] { s.release(); })->scheduleTask();
             s.schedule("n1 n2"), s.turnUntilIdle();
         },
         "t"},
        {"inside a run that a timer began",
         [](Stage& s) {
             s.task("t", TaskPriority::high, [&s] { s.release(); })->scheduleTaskDelay(1.0);
             s.schedule("n1+", 3), s.turnUntilIdle();
             s.timers.clock->nowInc(1.0);
             s.turnUntilIdle();
         },
         "n1+ n1+ n1+ t"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        Stage stage(GetParam());
        auto const name = stage.root->nameRecord();
        c.act(stage);
        stage.release();
        EXPECT_EQ(1u, name->use_count()) << "the tree, its history and its own tasks are gone";
        stage.timers.clock->nowInc(2000.0);
        EXPECT_EQ(0u, stage.turn());
        EXPECT_EQ(endOfTime, stage.nextDue());
        EXPECT_EQ(c.order, stage.takeOrder());
    }
}

} // namespace
