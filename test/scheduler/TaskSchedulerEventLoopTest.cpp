#include <scheduler/TaskSchedulerEventLoop.h>

#include <support/HandRoot.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Kel::EventLoop;
using Kel::Task;
using Kel::TaskPriority;
using Kel::TaskSchedulerEventLoop;
using Kel::TimerTask;
using Mox::Ptr;
using testing::HasSubstr;
using TestSupport::OnRun;

struct TaskSchedulerEventLoopTest : testing::Test {
    Ptr<Task> task(Mox::String8 const& name = "t", TaskPriority priority = TaskPriority::normal) {
        return Task::TaskIs(root, priority, name);
    }

    TestSupport::ManualClock steady;
    TestSupport::VirtualTime timers{true};
    Ptr<EventLoop> loop = EventLoop::EventLoopIs();
    Ptr<TaskSchedulerEventLoop> root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
};

TEST_F(TaskSchedulerEventLoopTest, RequestsBeforeATurnCollapseIntoOnePass) {
    root->suspendedIs(true);
    root->clearHistory();
    for (int request = 0; request < 3; ++request)
        root->requestSchedulerRun();
    loop->runOnce();
    loop->runOnce();
    EXPECT_EQ(1u, root->history().size()) << "each pass of a suspended root leaves an event";
}

TEST_F(TaskSchedulerEventLoopTest, KeepsALoopAliveThatWouldEndAndRunsNoPassForIt) {
    EXPECT_EQ(600.0, loop->nextDue());
    root->suspendedIs(true);
    root->clearHistory();
    loop->runUntil(3000.0);
    EXPECT_EQ(600.0, loop->nextDue());
    EXPECT_TRUE(root->history().empty());
    root->hasNotificationActiveIs(false); // off: the timer's expiry is lost, and nothing re-arms it
    loop->runUntil(4000.0);
    EXPECT_EQ(Mox::endOfTime, loop->nextDue());
}

TEST_F(TaskSchedulerEventLoopTest, NeedsNoKeepAliveOnALoopThatWaits) {
    Ptr<EventLoop> const waits = EventLoop::EventLoopIs();
    waits->runsWhenIdleIs(true);
    auto const other = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("other", waits);
    EXPECT_FALSE(other->eventLoopKeepAliveClock());
    EXPECT_EQ(Mox::endOfTime, waits->nextDue());
    other->keepEventLoopAlive();
    EXPECT_EQ(Mox::endOfTime, waits->nextDue());
}

TEST_F(TaskSchedulerEventLoopTest, ActivityLoopCarriesItForAsLongAsItLasts) {
    Ptr<EventLoop> const carried = EventLoop::EventLoopIs(timers.manager);
    auto const other = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("other", carried);
    EXPECT_FALSE(other->eventLoopKeepAliveClock());
    auto const t = TimerTask::TimerTaskIs(other, TaskPriority::low, "t");
    t->scheduleTaskDelay(2000.0);
    timers.manager->runUntil(2001.0);
    EXPECT_EQ(1u, t->taskRun());
    EXPECT_DEATH(
        other->keepEventLoopAlive(),
        HasSubstr("!evLoop()->useMoxEventLoop(), source TaskScheduler, function keepEventLoopAlive"));
}

TEST_F(TaskSchedulerEventLoopTest, ReleasedWhileARunIsAskedForIsNeverCalledAgain) {
    auto const name = root->nameRecord();
    auto t = task();
    t->scheduleTask();
    t = nullptr;
    root = nullptr;
    EXPECT_EQ(1u, name->use_count());
    EXPECT_EQ(0u, loop->runOnce());
    EXPECT_EQ(Mox::endOfTime, loop->nextDue());
}

TEST_F(TaskSchedulerEventLoopTest, WithoutItsClockARequestIsDropped) {
    root->clockDel();
    root->requestSchedulerRun();
    EXPECT_EQ(0u, loop->runOnce());
    root->clockIs(Kel::TimerEvent::TimerEventIs(loop));
    root->requestSchedulerRun();
    EXPECT_EQ(1u, loop->runOnce());
    root->clock()->notifierIs(nullptr); // the clock has lost its event
    root->requestSchedulerRun();
    EXPECT_EQ(0u, loop->runOnce());
}

// Who lets go last, and when: the tree, its history and its own tasks are gone with the last owner.
TEST_F(TaskSchedulerEventLoopTest, DiesWholeWithItsLastOwner) {
    using T = TaskSchedulerEventLoopTest;
    struct {
        char const* what;
        void (*releaseRoot)(T&);
    } const cases[] = {
        {"root before tasks", [](T& t) { t.root = nullptr; }},
        {"root in a run",
         [](T& t) {
             auto const last = t.task("last", TaskPriority::absolute);
             Ptr<OnRun> const reactor = new OnRun(last, [&] { t.root = nullptr; });
             last->scheduleTask();
             t.loop->runOnce();
         }},
        {"root and loop", [](T& t) { t.root = nullptr, t.loop = nullptr; }},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        loop = EventLoop::EventLoopIs();
        root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
        auto const name = root->nameRecord();
        auto queued = task("queued");
        Ptr<TimerTask> armed = TimerTask::TimerTaskIs(root, TaskPriority::low, "armed");
        root->resetStats();
        armed->scheduleTaskDelay(0.5);
        loop->runUntil(Mox::now() + 1.0); // goes idle: the trim task is there as well
        queued->scheduleTask();
        armed->scheduleTaskDelay(1.0);
        c.releaseRoot(*this);
        queued = nullptr;
        EXPECT_EQ("root", armed->taskScheduler()->schedulerName()) << "a task keeps its tree";
        armed->taskRunFromTest();
        armed = nullptr;
        EXPECT_EQ(1u, name->use_count());
    }
}

/// A tree in a variable that outlives the thread's locals, with a task scheduled and one armed.
struct Global {
    Ptr<EventLoop> loop;
    Ptr<TaskSchedulerEventLoop> root;
    Ptr<Task> task;
    Ptr<TimerTask> timer;
};

TEST(TaskSchedulerEventLoopDeathTest, RootInAGlobalVariableDiesAfterTheThreadsLocals) {
    auto const leaveBehind = [] {
        static Global global;
        global.loop = EventLoop::EventLoopIs();
        global.root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", global.loop);
        global.task = Task::TaskIs(global.root, TaskPriority::normal, "t");
        global.timer = TimerTask::TimerTaskIs(global.root, TaskPriority::normal, "timer");
        global.task->scheduleTask();
        while (global.root->schedulerHasRunnableTasks())
            global.loop->runOnce();
        global.task->scheduleTask();
        global.timer->scheduleTaskDelay(5.0);
        std::exit(0);
    };
    EXPECT_EXIT(leaveBehind(), testing::ExitedWithCode(0), "");
}

TEST_F(TaskSchedulerEventLoopTest, ForkedChildGoesOnWithItsOwnLoop) {
    auto const t = TimerTask::TimerTaskIs(root, TaskPriority::normal, "t");
    t->scheduleTaskDelay(1.0);
    pid_t const child = fork();
    loop->runUntil(Mox::now() + 2.0);
    if (child == 0)
        _exit(t->taskRun() == 1 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(1u, t->taskRun());
}

TEST_F(TaskSchedulerEventLoopTest, TracesItsMakingAndNeedsALoop) {
    TestSupport::TraceLog traces({4});
    auto const other = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("other", loop);
    EXPECT_THAT(traces.take(), HasSubstr("4 TaskScheduler handleInitialized: other: Scheduler created\n"));
    EXPECT_DEATH(TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("none", nullptr),
                 HasSubstr("__null != evLoop_"));
}

} // namespace
