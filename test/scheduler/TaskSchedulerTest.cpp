#include <mox/Exception.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using Kel::TaskScheduler;
using Kel::TaskSchedulerRoot;
using Mox::Ptr;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::HandRoot;
using TestSupport::HandScheduler;
using TestSupport::OnRun;

struct TaskSchedulerTest : TestSupport::HandTreeTest {
    Ptr<HandScheduler> below = new HandScheduler("below", root.ptr());
};

TEST_F(TaskSchedulerTest, RunsOneTaskAPassAndAsksAgainUntilAPassFindsNone) {
    auto const a = task("a"), b = task("b");
    a->scheduleTask();
    b->scheduleTask();
    EXPECT_EQ(2u, root->takeRequests()) << "the root asks twice, when the first comes";
    for (Mox::U32 const requests : {1u, 1u, 0u}) {
        EXPECT_TRUE(root->schedulerHasRunnableTasks());
        root->handleSchedulerRun();
        EXPECT_EQ(requests, root->takeRequests());
    }
    EXPECT_FALSE(root->schedulerHasRunnableTasks());
    root->clearHistory();
    root->handleSchedulerRun();
    EXPECT_THAT(root->takeHistory(), ElementsAre());
    EXPECT_EQ(0u, root->takeRequests());
}

TEST_F(TaskSchedulerTest, BelowTheRootRecordsItsStateOnceAndInTheRoot) {
    auto const t = Task::TaskIs(below, TaskPriority::high, "t");
    t->scheduleTask();
    t->unscheduleTask();
    below->handleSchedulerRun();
    EXPECT_EQ(1u, below->requests);
    EXPECT_EQ(0u, root->takeRequests());
    EXPECT_THAT(root->takeHistory(), ElementsAre("schedule   H t", "schedulerRunnable", "busy       H t",
                                                 "unschedule H t", "idle       H t", "schedulerIdle"));
}

TEST_F(TaskSchedulerTest, SuspendedTreeRunsNothingAndIsAskedOnceWhenItGoesOn) {
    TestSupport::TraceLog traces({8});
    root->suspendedIs(false); // was never suspended
    root->suspendedIs(true);
    root->suspendedIs(true);
    EXPECT_THAT(root->takeHistory(), ElementsAre("schedulerSuspended"));
    auto const t = task();
    t->scheduleTask();
    root->clearHistory(), root->takeRequests(), traces.take();
    root->handleSchedulerRun();
    below->handleSchedulerRun();
    EXPECT_THAT(root->takeHistory(),
                ElementsAre("schedulerRunIgnoredWhileSuspended", "schedulerRunIgnoredWhileSuspended"));
    EXPECT_EQ("8 TaskScheduler handleSchedulerRun: root: Suspended\n"
              "8 TaskScheduler handleSchedulerRun: below: Suspended\n"
              "8 TaskScheduler clearHistory: root: history cleared\n",
              traces.take());
    EXPECT_EQ(0u, root->takeRequests());
    EXPECT_TRUE(t->taskScheduled());
    root->suspendedIs(false);
    EXPECT_EQ(1u, root->takeRequests());
    EXPECT_EQ(1u, root->runUntilIdle());
}

TEST_F(TaskSchedulerTest, KeepsTheLongestSlipFromRequestToPass) {
    auto const t = task();
    Ptr<OnRun> const reactor = new OnRun(t, [&] { steady.advance(50ms), t->scheduleTask(); });
    struct {
        TestSupport::ManualClock::Duration wait;
        Mox::Seconds slip;
    } const cases[] = {{3ms, 0.003}, {2ms, 0.003}, {4ms, 0.004}, {-1ms, 0.004}};
    t->scheduleTask();
    for (auto const& c : cases) {
        steady.advance(c.wait);
        root->handleSchedulerRun();
        EXPECT_EQ(c.slip, root->schedulerMaxSchedulerSlip()) << "the run itself is no slip";
    }
}

TEST_F(TaskSchedulerTest, ReleasedInsideARunDiesAfterIt) {
    below = nullptr;
    for (bool const ofItsOwnTask : {false, true}) { // which does not hold it
        root = HandRoot::HandRootIs();
        auto const name = root->nameRecord();
        auto t = ofItsOwnTask ? root->resetStatsTaskIs(root, TaskPriority::low, "own") : task();
        Ptr<OnRun> reactor = new OnRun(t, [&] { root = nullptr, t = nullptr, reactor = nullptr; });
        t->scheduleTask();
        root->handleSchedulerRun();
        EXPECT_EQ(1u, name->use_count());
    }
}

TEST_F(TaskSchedulerTest, CollectionsGiveBackWhatTheyLose) {
    auto const a = task("a", TaskPriority::high), b = task("b", TaskPriority::low);
    EXPECT_EQ(3u, root->tasksPerPriorityInc(TaskPriority::low, 2));
    EXPECT_EQ(3u, root->tasksPerPriorityDel(TaskPriority::low));
    EXPECT_EQ(0u, root->tasksPerPriorityDel(TaskPriority::low));
    root->newDeadTasksPerPriority(TaskPriority::low, 1);
    EXPECT_EQ(6u, root->deadTasksPerPriorityInc(TaskPriority::low, 5));
    root->newDeadTasksPerPriority(TaskPriority::high, 1);
    auto dead = root->deadTasksPerPriority().begin();
    EXPECT_EQ(7u, root->deadTasksPerPriorityDel(dead) + root->deadTasksPerPriorityDel(dead));
    EXPECT_EQ(root->deadTasksPerPriority().end(), dead);

    Kel::TaskStat stat;
    for (Mox::U32 const runs : {3u, 4u}) { // the second replaces the first
        stat.taskRunIs(runs);
        root->deadTaskStatsIs("n", stat);
    }
    auto at = root->deadTaskStats().begin();
    EXPECT_EQ(stat, root->deadTaskStatsDel(at));
    EXPECT_EQ(Kel::TaskStat(), root->deadTaskStatsDel("n"));

    auto walk = root->tasksRegisteredIterator();
    Task* const first = root->tasksRegisteredDel(walk);
    Task* const second = root->tasksRegisteredDel(walk);
    EXPECT_TRUE((first == a.ptr() && second == b.ptr()) || (first == b.ptr() && second == a.ptr()));
    EXPECT_EQ(nullptr, root->tasksRegisteredDel(walk));
    root->tasksPerPriorityIs(TaskPriority::low, 1); // so that they can die
    for (Task* t : {first, second})
        root->newTasksRegistered(t);
    try {
        root->tasksRegisteredIs(nullptr);
        ADD_FAILURE();
    } catch (Mox::RangeException const& e) {
        EXPECT_STREQ(
            "null _tasksRegistered parameter to mutator for Kel::TaskScheduler::tasksRegistered not allowed",
            e.what());
    }
}

TEST_F(TaskSchedulerTest, RootKnowsTheSchedulersOfItsTree) {
    EXPECT_TRUE(root->taskScheduler(root.ptr()));
    EXPECT_EQ(1u, root->taskScheduler().size());
    EXPECT_FALSE(root->taskSchedulerDel(below.ptr()));
    root->registerScheduler(below.ptr());
    root->taskSchedulerIs(below.ptr(), false);
    EXPECT_FALSE(root->taskScheduler(below.ptr()));
    root->taskSchedulerIs(below.ptr(), true);
    EXPECT_EQ(2u, root->taskScheduler().size());
    auto at = root->taskScheduler().begin();
    EXPECT_TRUE(root->taskSchedulerDel(at));
    root->taskSchedulerDelAll();
    EXPECT_TRUE(root->taskScheduler().empty());
}

/// A scheduler whose registry gives back another task than the one asked for.
struct Confused : HandScheduler {
    using HandScheduler::HandScheduler;
    using HandScheduler::tasksRegisteredDel;
    Task* tasksRegisteredDel(Kel::TaskKey const&) override { return nullptr; }
};

TEST_F(TaskSchedulerTest, WhatIsMissingEndsTheProcess) {
    auto const base = TaskScheduler::TaskSchedulerIs("base", root.ptr());
    auto const bare = TaskSchedulerRoot::TaskSchedulerRootIs("bare");
    auto const rootless = TaskScheduler::TaskSchedulerIs("rootless", nullptr);
    Ptr<Confused> const confused = new Confused("confused", root.ptr());
    auto const sink = Kel::StringDumpContext::StringDumpContextIs();
    char const* const derive =
        "0 && \"Must be implemented by derived class\", source TaskScheduler, function request";
    struct {
        std::function<void()> act;
        char const* text;
    } const cases[] = {
        {[&] { base->requestSchedulerRun(); }, derive},
        {[&] { bare->requestSchedulerRun(); }, derive},
        {[&] { Task::TaskIs(bare, TaskPriority::low, "t")->scheduleTask(); }, derive},
        {[&] { base->printHistory(sink, 0); },
         "0 && \"Must override in derived class\", source TaskScheduler, function printHistory"},
        {[&] { Task::TaskIs(rootless, TaskPriority::low, "t"); }, "__null != root_, source TaskScheduler"},
        {[&] { Task::TaskIs(confused, TaskPriority::low, "t"); },
         "task == deletedTask, source TaskScheduler"},
    };
    for (auto const& c : cases)
        EXPECT_DEATH(c.act(), HasSubstr(c.text));
}

TEST_F(TaskSchedulerTest, ForkedChildUsesTheTreeFromAnyThread) {
    auto const t = timerTask();
    t->scheduleTaskDelay(1.0);
    pid_t const child = fork();
    if (child == 0) {
        timePasses(1.0);
        Mox::U32 const runs = root->runUntilIdle();
        std::thread([&] { task("another")->scheduleTask(); }).join();
        _exit(runs == 1 && t->taskRun() == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0u, t->taskRun());
}

} // namespace
