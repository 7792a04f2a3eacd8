#include <scheduler/TaskSchedulerEventLoop.h>

#include <support/HandRoot.h>

#include <gmock/gmock.h>

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
