#include <group/TaskGroup.h>
#include <mox/TurnLoop.h>
#include <mox/TypeRegistry.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <support/Calls.h>
#include <support/ManualClock.h>
#include <support/Random.h>
#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <random>
#include <sstream>

// What an application may expect of a scheduler, wherever it stands: the same tests run over each driver of a
// root, and over a group inside each.

namespace {

using namespace TestSupport;

/// A scheduler at its place with its loop, on which descriptors may never fall silent, and tasks that write
/// their names down.
struct Stage {
    ~Stage() {
        if (std::exchange(isFlooded, false))
            turn(); // the thread's loop stays
    }
    void build(bool isOnEventLoop, bool isGroup, bool hasFlood = false) {
        loop = isOnEventLoop ? EventLoop::EventLoopIs() : nullptr;
        root = loop ? Ptr<TaskSchedulerRoot>(TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop))
                    : TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");
        scheduler = root;
        if (isGroup)
            scheduler = TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
        isFlooded = hasFlood;
        if (hasFlood)
            flood();
    }
    void flood() {
        boost::asio::post(turnLoop().ioContext(), [this, there = std::weak_ptr(floods)] {
            if (there.expired() || !isFlooded)
                return;
            ++*floods;
            flood();
        });
    }
    /// The owner lets go of everything; only the loop stays.
    void release() {
        workers.clear();
        scheduler = nullptr;
        root = nullptr;
        order.clear();
    }

    // The loop

    TurnLoop& turnLoop() const { return loop ? loop->turnLoop() : timers.manager->turnLoop(); }
    /// Calls of the flood do not count.
    U64 turn() {
        U64 const before = *floods, calls = turnLoop().runOnce();
        return calls - (*floods - before);
    }
    Seconds nextDue() {
        if (std::exchange(isFlooded, false))
            turn();
        return turnLoop().nextDue();
    }
    void turnUntilIdle() {
        while (turn() > 0) {
        }
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
    bool isFlooded = false;
    std::shared_ptr<U64> const floods = std::make_shared<U64>(0); // handlers
};

/// On an event loop or the thread's activity manager; in a group or at the root; descriptors silent or not.
struct BehaviourSuite : testing::TestWithParam<std::tuple<bool, bool, bool>>, Stage {
    BehaviourSuite() { build(); }
    void build() {
        std::apply([this](auto... place) { Stage::build(place...); }, GetParam());
    }
};
INSTANTIATE_TEST_SUITE_P(At, BehaviourSuite,
                         testing::Combine(testing::Bool(), testing::Bool(), testing::Bool()));

TEST_P(BehaviourSuite, RunsByPriorityInTheOrderOfArrival) {
    schedule("s1 l1 n1 h1 a1 n2 h2");
    turnUntilIdle();
    EXPECT_EQ("a1 h1 h2 n1 n2 l1 s1", takeOrder());
    schedule("n1+ n2+ n3+", 6);
    turnUntilIdle();
    EXPECT_EQ("n1+ n2+ n3+ n1+ n2+ n3+ n1+ n2+", takeOrder()) << "those queued at the end run too";
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
    EXPECT_EQ(3u, scheduler->runnableTaskCount(TaskPriority::normal)) << "the timer has queued its task";
    root->suspendedIs(false);
    turnUntilIdle();
    EXPECT_EQ("n1 n2 timer", takeOrder());
}

TEST_P(BehaviourSuite, RequestOutlivesAMoveOfTheRootToAnotherClock) {
    schedule("n1");
    if (auto const onLoop = dynamic_cast<TaskSchedulerEventLoop*>(root.ptr()))
        onLoop->clockIs(TimerEvent::TimerEventIs(loop));
    else
        dynamic_cast<TaskSchedulerMoxActivity&>(*root).clockIs(VirtualClock::VirtualClockIs());
    turnUntilIdle();
    EXPECT_EQ("n1", takeOrder());
}

/// What is asked for before and while the scheduler, or the root, is switched off.
TEST_P(BehaviourSuite, SwitchedOffAndOnByNameNothingIsLeftStuck) {
    std::function<void()> const nothing = [] {};
    struct {
        char const* what;
        std::function<void()> before, meanwhile;
        char const* order;
    } const cases[] = {
        {"scheduled before", [&] { schedule("n1 l1"); }, nothing, "n1 l1"},
        {"scheduled meanwhile", nothing, [&] { schedule("n1 l1"); }, "n1 l1"},
        {"both", [&] { schedule("n1+ l1", 2); }, [&] { schedule("n2"); }, "n1+ n2 n1+ l1"},
        {"a timer", [&] { task("t")->scheduleTaskDelay(1.0); }, nothing, "t"},
        {"suspended", [&] { schedule("n1"); },
         [&] { root->suspendedIs(true), turnUntilIdle(), root->suspendedIs(false); }, "n1"},
        {"reset before", [&] { schedule("n1"), turnUntilIdle(), takeOrder(), scheduler->resetStats(); },
         nothing, ""},
        {"reset meanwhile", [&] { schedule("n1"), turnUntilIdle(), takeOrder(); },
         [&] { scheduler->resetStats(); }, ""},
        {"reset by a task that the root runs",
         [&] {
             scheduler->resetStatsTaskIs(root, TaskPriority::normal, "elsewhere");
             schedule("n1"), turnUntilIdle(), takeOrder();
         },
         [&] { scheduler->resetStats(); }, ""},
    };
    for (bool const ofRoot : {false, true})
        for (auto const& c : cases) {
            SCOPED_TRACE(c.what);
            release();
            build();
            TaskScheduler& switched = ofRoot ? *root : *scheduler;
            c.before();
            attributeTextIs(switched, "hasNotificationActive", "False");
            turnUntilIdle();
            c.meanwhile();
            turnUntilIdle();
            timers.clock->nowInc(2000.0); // the history is to be trimmed, the loop kept alive
            turnUntilIdle();
            EXPECT_EQ("", order) << "while it was off";
            attributeTextIs(switched, "hasNotificationActive", "True");
            turnUntilIdle();
            EXPECT_EQ(c.order, takeOrder());
            EXPECT_FALSE(root->schedulerHasRunnableTasks() || scheduler->schedulerHasRunnableTasks());
            for (auto const& worker : workers)
                EXPECT_EQ(*c.order == '\0', worker->notifier()->taskRun() == 0) << "reset";
            schedule("h1");
            turnUntilIdle();
            EXPECT_EQ("h1", takeOrder());
            EXPECT_LE(nextDue(), 10.0) << "the history is trimmed";
        }
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

TEST_P(BehaviourSuite, NothingStaysInTheLoopWhereverItIsReleased) {
    release();
    struct {
        char const* what;
        std::function<void()> act;
    } const cases[] = {
        {"with a run requested", [&] { schedule("n1 n2"); }},
        {"with a timer armed", [&] { task("t")->scheduleTaskDelay(1.0); }},
        {"suspended", [&] { root->suspendedIs(true), schedule("n1"), turnUntilIdle(); }},
        {"switched off", [&] { schedule("n1"), root->hasNotificationActiveIs(false), turnUntilIdle(); }},
        {"a zombie", [&] { root->moxDoZombieReactors(true), schedule("n1"), turnUntilIdle(); }},
        {"with its second reset requested",
         [&] { scheduler->resetStats(), turnUntilIdle(), scheduler->resetStats(); }},
        {"inside a run",
         [&] {
             task("t", TaskPriority::high, [&] { release(); })->scheduleTask();
             schedule("n1 n2"), turnUntilIdle();
         }},
        {"inside a run that a timer began",
         [&] {
             task("t", TaskPriority::high, [&] { release(); })->scheduleTaskDelay(1.0);
             schedule("n1+", 3), turnUntilIdle();
             timers.clock->nowInc(1.0);
             turnUntilIdle();
         }},
        {"with its loop before its task",
         [&] {
             auto const t = task("t");
             scheduler->resetStats(), turnUntilIdle(), t->scheduleTask();
             release(), loop = nullptr;
             t->scheduleTaskDelay(1.0), t->taskRunFromTest();
         }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        build();
        auto const name = root->nameRecord();
        c.act();
        release();
        EXPECT_EQ(1u, name->use_count()) << "the tree, its history and its own tasks are gone";
        timers.clock->nowInc(2000.0);
        EXPECT_EQ(0u, turn());
        EXPECT_EQ(endOfTime, nextDue());
        EXPECT_EQ("", takeOrder()) << "nothing ran any more";
    }
}

/// What only a root on an event loop has to look after.
struct TaskSchedulerEventLoopTest : testing::Test {
    ManualClock steady;
    VirtualTime timers{true};
    Ptr<EventLoop> loop = EventLoop::EventLoopIs();
    Ptr<TaskSchedulerEventLoop> root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
};

TEST_F(TaskSchedulerEventLoopTest, KeepsALoopAliveThatWouldEndAndRunsNoPassForIt) {
    EXPECT_EQ(600.0, loop->nextDue());
    root->suspendedIs(true);
    root->clearHistory();
    loop->runUntil(3000.0);
    EXPECT_EQ(600.0, loop->nextDue());
    EXPECT_TRUE(root->history().empty());
    root->hasNotificationActiveIs(false);
    loop->runUntil(4000.0);
    EXPECT_LE(loop->nextDue(), 600.0) << "armed again, though it fired while the root was off";
    root->eventLoopKeepAliveClockIs(TimerEvent::TimerEventIs(loop));
    EXPECT_EQ(600.0, loop->nextDue()) << "and on another event";
}

TEST_F(TaskSchedulerEventLoopTest, NeedsNoKeepAliveOnALoopThatWaitsNorOnTheActivitysLoop) {
    Ptr<EventLoop> const waits = EventLoop::EventLoopIs();
    waits->runsWhenIdleIs(true);
    auto const other = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("other", waits);
    other->keepEventLoopAlive();
    EXPECT_EQ(endOfTime, waits->nextDue());
    auto const activitys = EventLoop::EventLoopIs(timers.manager);
    auto const carried = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("carried", activitys);
    EXPECT_EQ(endOfTime, timers.manager->nextDue());
    EXPECT_DEATH(carried->keepEventLoopAlive(),
                 testing::HasSubstr("!evLoop()->useMoxEventLoop(), source TaskSched"));
    EXPECT_DEATH(TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("none", nullptr),
                 testing::HasSubstr("evLoop_"));
}

TEST_F(TaskSchedulerEventLoopTest, WithoutItsClockARequestIsDropped) {
    auto const t = Task::TaskIs(root, TaskPriority::normal, "t");
    t->scheduleTask();
    auto const held = root->clock(); // with the request
    root->clockDel();
    root->requestSchedulerRun();
    loop->runOnce();
    EXPECT_EQ(0u, t->taskRun() + loop->runOnce());
    root->clockIs(TimerEvent::TimerEventIs(loop));
    EXPECT_EQ(1u, loop->runOnce());
    EXPECT_EQ(1u, t->taskRun());
}

/// What happens in which order when tasks that schedule themselves run on a real clock, and do all sorts of
/// things meanwhile. With another reactor on the root's timer event each pass is a call of the loop.
std::string orderOf(std::uint64_t seed, bool eachIsCalled, int runs) {
    ManualClock steady;
    std::mt19937_64 random(seed);
    std::uint64_t const seldom = 1 + random() % 300;
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    auto const root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    std::string order;
    int left = runs, deep = 0, told = 0;
    EventCall soon(loop, [&] { order += "c"; });
    Ptr<EventCall::Reactor> other;
    auto const newEvent = [&] {
        root->clockIs(TimerEvent::TimerEventIs(loop));
        if (eachIsCalled)
            other = new EventCall::Reactor(root->clock()->notifier(), 0, [&] { ++told; });
    };
    auto const post = [&](char const* what, std::function<void()> call) {
        boost::asio::post(loop->ioContext(), [&order, what, call] { order += what, call(); });
    };
    auto const silenceUntilPosted = [&](std::function<void(bool)> const& isOn) {
        isOn(false);
        post("on", [&, isOn] { isOn(true), root->requestSchedulerRun(); });
    };
    auto const something = [&] {
        switch (random() % 16) {
        case 0: return post("p", [] {});
        case 1: return soon.in(0.0);
        case 2: return void(order += "o" + std::to_string(loop->runOnce()));
        case 3: return root->clock()->onClock();
        case 4: return root->handleSchedulerRun();
        case 5: return newEvent();
        case 6: return silenceUntilPosted([&](bool on) { root->clock()->hasNotificationActiveIs(on); });
        case 7: return steady.perReadingIs(ManualClock::Duration(random() % 2 * (random() % 2000)));
        case 8: return steady.advance(ManualClock::Duration(-1));
        case 9: return silenceUntilPosted([&](bool on) { root->clock()->notificationActiveIs(0, on); });
        case 10: return silenceUntilPosted([&](bool on) { root->suspendedIs(!on); });
        case 11:
            return silenceUntilPosted(
                [&](bool on) { root->clock()->notifier()->hasNotificationActiveIs(on); });
        case 12: return loop->stop();
        default: return;
        }
    };
    newEvent();
    std::vector<Ptr<OnRun>> tasks;
    for (auto const& [name, priority] : std::map<std::string, U32>{{"H", 1}, {"N", 2}, {"L", 3}}) {
        auto const task = Task::TaskIs(root, TaskPriority::PriorityEnumInstance(priority), name);
        tasks.push_back(new OnRun(task, [&, name = name, task = task.ptr()] {
            order += name;
            task->scheduleTask();
            ++deep;
            if (--left <= 0)
                loop->stop();
            for (auto n = deep < 3 && random() % seldom == 0 ? random() % 4 : 0; n > 0; --n)
                something();
            --deep;
        }));
        task->scheduleTask();
    }
    while (left > 0)
        random() % 2 == 0 ? loop->run() : void(order += std::to_string(loop->runOnce()));
    return order + (!eachIsCalled || told > runs / 2 ? "" : " not called each time") + " " +
           std::to_string(steady.readings());
}

TEST(TaskSchedulerEventLoopTurns, ComeInTheSameOrderWhetherTheyLeaveTheirCallOrNot) {
    Random random;
    for (std::size_t i = 0; i < operations(200); ++i) {
        std::uint64_t const seed = random.word();
        ASSERT_EQ(orderOf(seed, true, 1000), orderOf(seed, false, 1000)) << seed;
    }
}

TEST(TaskSchedulerEventLoopDeathTest, RootInAGlobalVariableDiesAfterTheThreadsLocals) {
    auto const leaveBehind = [] {
        static auto const global = [] {
            auto loop = EventLoop::EventLoopIs();
            auto root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
            auto timer = TimerTask::TimerTaskIs(root, TaskPriority::normal, "timer");
            return std::tuple(loop, root, timer);
        }();
        auto const& [loop, root, timer] = global;
        timer->scheduleTask();
        while (root->schedulerHasRunnableTasks())
            loop->runOnce();
        timer->scheduleTask();
        timer->scheduleTaskDelay(5.0);
        std::exit(0);
    };
    EXPECT_EXIT(leaveBehind(), testing::ExitedWithCode(0), "");
}

} // namespace
