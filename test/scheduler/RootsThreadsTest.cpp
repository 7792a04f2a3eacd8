#include <mox/TraceHandle.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace TestSupport;

/// Everything that a tree does, on a thread of its own: runs, timers, statistics, history, reports, death.
void useATree(U32 runs) {
    VirtualTime timers(true);
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    auto const root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    auto const worker = Task::TaskIs(root, TaskPriority::high, "worker");
    auto const timer = TimerTask::TimerTaskIs(root, TaskPriority::low, "timer");
    Ptr<OnRun> const works = new OnRun(worker, [&] {
        Task::TaskIs(root, TaskPriority::normal, "short")->scheduleTask();
        if (worker->taskRun() < runs)
            worker->scheduleTask();
    });
    Ptr<OnRun> const ticks = new OnRun(timer, [&] { timer->scheduleTaskJitterUp(0.5, 20); });
    worker->scheduleTask();
    timer->scheduleTaskDelay(0.5);
    loop->runUntil(100.0); // the history is trimmed meanwhile
    EXPECT_GT(timer->taskRun(), 150u);
    EXPECT_EQ(runs, root->deadTasksPerPriority(TaskPriority::normal));
    root->printStats(StringDumpContext::StringDumpContextIs(), 0, true, true, true, true);
    root->resetStats();
    loop->runUntil(101.0);
    EXPECT_EQ(0u, worker->taskRun());
    EXPECT_EQ(0u, root->moxAuditErrors(1));
}

TEST(Roots, OneAThreadRunSideBySideWhileWhatTheyTraceIsSwitched) {
    TraceHandle& trace = TraceHandle::traceHandle("TaskScheduler");
    std::atomic<int> traced = 0;
    trace.sinkIs([&](TraceRecord const&) { ++traced; });
    trace.levelEnabledIs(8, true); // each run
    std::thread first(useATree, 2000), second(useATree, 2000);
    for (U32 step = 0; step < 100'000; ++step)
        trace.levelEnabledIs(step % 10, step % 3 != 0);
    first.join();
    second.join();
    for (U32 level = 0; level < 10; ++level)
        trace.levelEnabledIs(level, false);
    trace.sinkIs(nullptr);
    EXPECT_GT(traced, 0);
}

} // namespace
