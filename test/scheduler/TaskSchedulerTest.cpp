#include <support/HandRoot.h>
#include <support/Refusal.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

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
using TestSupport::refusal;

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

TEST_F(TaskSchedulerTest, SuspendedTreeRunsNothingAndIsAskedOnceWhenItGoesOn) {
    TestSupport::TraceLog traces({8});
    for (bool const suspended : {false, true, true}) // not suspended at first
        root->suspendedIs(suspended);
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
    root->suspendedIs(false);
    EXPECT_EQ(1u, root->takeRequests());
    EXPECT_EQ(1u, root->runUntilIdle());
}

TEST_F(TaskSchedulerTest, KeepsTheLongestSlipFromRequestToPass) {
    auto const t = task();
    Ptr<OnRun> const reactor = new OnRun(t, [&] { steady.advance(50ms), t->scheduleTask(); });
    t->scheduleTask();
    for (auto const& [wait, slip] : {std::pair{3ms, 0.003}, {2ms, 0.003}, {4ms, 0.004}, {-1ms, 0.004}}) {
        steady.advance(wait);
        root->handleSchedulerRun();
        EXPECT_EQ(slip, root->schedulerMaxSchedulerSlip()) << "the run itself is no slip";
    }
}

/// The tasks that a root makes for itself, by what its interface says of each.
struct OwnTask {
    char const* name;
    Ptr<Task> (*make)(TaskSchedulerRoot&);
    Ptr<Task> (*replace)(TaskSchedulerRoot&);
    Ptr<Task> (*drop)(TaskSchedulerRoot&);
    void (*lose)(TaskSchedulerRoot&); // its reactor loses it
};
using Root = TaskSchedulerRoot;
OwnTask const ownTasks[] = {
    {"reset", [](Root& r) { return r.resetStatsTaskIs(&r, TaskPriority::low, "own"); },
     [](Root& r) { return r.newResetStatsTask(&r, TaskPriority::low, "own"); },
     [](Root& r) { return r.resetStatsTaskDel(); }, [](Root& r) { r.resetStatsTask()->notifierIs(nullptr); }},
    {"trim", [](Root& r) -> Ptr<Task> { return r.trimHistoryTaskIs(&r, TaskPriority::low, "own"); },
     [](Root& r) -> Ptr<Task> { return r.newTrimHistoryTask(&r, TaskPriority::low, "own"); },
     [](Root& r) -> Ptr<Task> { return r.trimHistoryTaskDel(); },
     [](Root& r) { r.trimHistoryTask()->notifierIs(nullptr); }},
};

TEST_F(TaskSchedulerTest, ItsOwnTaskIsMadeOnceOrphanedWhenItIsDroppedAndKeepsNothing) {
    below = nullptr;
    for (auto const& own : ownTasks) {
        SCOPED_TRACE(own.name);
        root = HandRoot::HandRootIs();
        auto const name = root->nameRecord();
        EXPECT_EQ(nullptr, own.drop(*root));
        auto first = own.make(*root);
        auto t = own.replace(*root);
        EXPECT_FALSE(std::exchange(first, nullptr)->taskScheduler());
        EXPECT_EQ(t, own.make(*root));
        t->scheduleTask();
        EXPECT_EQ(t, own.drop(*root));
        EXPECT_FALSE(t->taskScheduler() || t->taskRunQueueLink().isLinked() || t->taskBusy());
        EXPECT_EQ(nullptr, root->tasksRegistered(t->taskKey()));
        EXPECT_EQ(0u, root->auditErrors(1) + root->runUntilIdle());
        EXPECT_DEATH(t->scheduleTask(), HasSubstr("__null != taskScheduler_"));

        own.make(*root);
        own.lose(*root); // which nobody else held
        EXPECT_EQ(3u, root->deadTaskStats("own")->taskDeadCount());
        EXPECT_EQ("null ValidPtr", refusal([&] { own.make(*root); }));
        own.drop(*root);
        t = own.make(*root);
        Ptr<OnRun> reactor = new OnRun(t, [&] { root = nullptr, t = nullptr, reactor = nullptr; });
        t->scheduleTask();
        root->handleSchedulerRun();
        EXPECT_EQ(1u, name->use_count()) << "the root died after the run in which it was released";
    }
}

TEST_F(TaskSchedulerTest, CollectionsGiveBackWhatTheyLose) {
    auto const a = task("a", TaskPriority::high), b = task("b", TaskPriority::low);
    EXPECT_EQ(3u, root->tasksPerPriorityInc(TaskPriority::low, 2));
    EXPECT_EQ(3u,
              root->tasksPerPriorityDel(TaskPriority::low) + root->tasksPerPriorityDel(TaskPriority::low));
    for (Mox::U32 const count : {3u, 6u}) // the second replaces the first
        root->deadTasksPerPriorityIs(TaskPriority::low, count);
    root->deadTasksPerPriorityInc(TaskPriority::high, 1);
    auto dead = root->deadTasksPerPriority().begin();
    EXPECT_EQ(7u, root->deadTasksPerPriorityDel(dead) + root->deadTasksPerPriorityDel(dead));
    EXPECT_EQ(root->deadTasksPerPriority().end(), dead);

    Kel::TaskStat stat;
    for (Mox::U32 const runs : {3u, 4u}) {
        stat.taskRunIs(runs);
        root->deadTaskStatsIs("n", stat);
    }
    auto stats = root->deadTaskStats().begin();
    EXPECT_EQ(stat, root->deadTaskStatsDel(stats));
    EXPECT_EQ(Kel::TaskStat(), root->deadTaskStatsDel("n"));

    auto walk = root->tasksRegisteredIterator();
    std::vector<Task*> const gone{root->tasksRegisteredDel(walk), root->tasksRegisteredDel(walk)};
    EXPECT_THAT(gone, testing::UnorderedElementsAre(a.ptr(), b.ptr()));
    EXPECT_EQ(nullptr, root->tasksRegisteredDel(walk));
    root->tasksPerPriorityIs(TaskPriority::low, 1); // so that they can die
    for (Task* t : gone)
        root->newTasksRegistered(t);
    EXPECT_THROW(root->tasksRegisteredIs(nullptr), Mox::RangeException);

    root->taskSchedulerIs(below.ptr(), false);
    EXPECT_FALSE(root->taskScheduler(below.ptr()));
    root->registerScheduler(below.ptr());
    auto schedulers = root->taskScheduler().begin();
    EXPECT_TRUE(root->taskSchedulerDel(schedulers) && root->taskSchedulerDel(schedulers));
    EXPECT_FALSE(root->taskSchedulerDel(below.ptr()));
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

} // namespace
