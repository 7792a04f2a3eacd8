#include <scheduler/TaskSchedulerEventLoop.h>

#include <support/HandRoot.h>

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace TestSupport;
using testing::HasSubstr;

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
    EXPECT_DEATH(carried->keepEventLoopAlive(), HasSubstr("!evLoop()->useMoxEventLoop(), source TaskSched"));
    EXPECT_DEATH(TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("none", nullptr), HasSubstr("evLoop_"));
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

TEST_F(TaskSchedulerEventLoopTest, TasksKeepTheirTreeThoughRootAndLoopAreReleased) {
    auto const name = root->nameRecord();
    auto armed = TimerTask::TimerTaskIs(root, TaskPriority::low, "armed");
    root->resetStats();
    loop->runUntil(1.0); // goes idle: the trim task is there as well
    armed->scheduleTask();
    armed->scheduleTaskDelay(1.0);
    root = nullptr, loop = nullptr;
    armed->taskRunFromTest();
    armed = nullptr;
    EXPECT_EQ(1u, name->use_count());
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

TEST_F(TaskSchedulerEventLoopTest, ForkedChildGoesOnWithItsOwnLoopAndUsesTheTreeFromAnyThread) {
    auto const t = TimerTask::TimerTaskIs(root, TaskPriority::normal, "t");
    t->scheduleTaskDelay(1.0);
    pid_t const child = fork();
    loop->runUntil(2.0);
    if (child == 0) {
        std::thread([&] { t->scheduleTask(); }).join();
        _exit(t->taskRun() == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(1u, t->taskRun());
}

} // namespace
