#include <support/HandRoot.h>
#include <support/Refusal.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::HasSubstr;

struct TaskSchedulerTest : HandTreeTest {
    Ptr<HandScheduler> below = new HandScheduler("below", root.ptr());
};

TEST_F(TaskSchedulerTest, RunsOneTaskAPassAndAsksAgainUntilAPassFindsNone) {
    auto const a = task("a"), b = task("b");
    a->scheduleTask();
    b->scheduleTask();
    EXPECT_EQ(2u, root->takeRequests()) << "the root asks twice, when the first comes";
    for (U32 const requests : {1u, 1u, 0u}) {
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
    TraceLog traces({8});
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

/// Notes which entries of its collections change.
struct Noting : TaskSchedulerRoot {
    Noting() : TaskSchedulerRoot("noting") { trimHistoryEnabledIs(false); }
    void requestSchedulerRun() override {}
    void tasksRegisteredNotify(TaskKey const&) override { note("task"); }
    void tasksPerPriorityNotify(TaskPriority p) override { note(p.toStrep()); }
    void deadTasksPerPriorityNotify(TaskPriority p) override { note("dead " + p.toStrep()); }
    void taskSchedulerNotify(TaskScheduler const*) override { note("scheduler"); }
    void deadTaskStatsNotify(String8 name) override {
        TaskStat const* const stat = deadTaskStats(name);
        note(!stat ? "no " + name : stat->taskName() + std::to_string(stat->taskRun()));
    }
    // As an application may override them.
    TaskStat deadTaskStatsInc(String8 name, TaskStat const& stat) override {
        return TaskSchedulerRoot::deadTaskStatsInc(name, stat);
    }
    TaskStat deadTaskStatsDel(String8 name) override { return TaskSchedulerRoot::deadTaskStatsDel(name); }
    using TaskSchedulerRoot::deadTaskStatsDel;
    void deadTaskStatsIs(String8 name, TaskStat const& stat) override {
        TaskSchedulerRoot::deadTaskStatsIs(name, stat);
    }
    Ptr<TimerTask> trimHistoryTaskIs(Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                     String8 name) override {
        return TaskSchedulerRoot::trimHistoryTaskIs(scheduler, priority, name);
    }
    void note(std::string const& what) { notes += (notes.empty() ? "" : ", ") + what; }

    std::string notes;
};

TEST_F(TaskSchedulerTest, CollectionsGiveBackWhatTheyLoseAndNotifyOfWhatChanges) {
    Ptr<Noting> const r = new Noting;
    auto const a = Task::TaskIs(r, TaskPriority::high, "a"), b = Task::TaskIs(r, TaskPriority::low, "b");
    constexpr auto high = TaskPriority::high, low = TaskPriority::low;
    TaskStat stat;
    auto const statOf = [&](U32 runs) -> TaskStat const& {
        stat.taskNameIs("n"), stat.taskRunIs(runs);
        return stat;
    };
    auto perPriority = r->tasksPerPriority().begin(), deadPerPriority = perPriority;
    auto dead = r->deadTaskStats().begin();
    auto walk = r->tasksRegisteredIterator();
    auto schedulers = r->taskScheduler().begin();
    auto const drop = [&](Task* task) { return task ? 1u : 0u; };
    struct {
        std::function<U64()> act;
        U64 result;
        char const* notes;
    } const rows[] = {
        {[&] { return r->tasksPerPriorityInc(low, 2); }, 3, "low"},
        {[&] { return r->tasksPerPriorityInc(low, 0) + r->auditErrors(0); }, 4, ""}, // which are too many
        {[&] { return r->tasksPerPriorityDec(low, 1); }, 2, "low"},
        {[&] { return r->tasksPerPriorityIs(low, 2), 0; }, 0, ""},
        {[&] { return r->tasksPerPriorityDel(low) + r->tasksPerPriorityDel(low); }, 2, "low"},
        {[&] { return r->newTasksPerPriority(low, 5), 0; }, 0, "low"},
        {[&] { return r->tasksPerPriorityDelAll(), r->tasksPerPriority().size(); }, 0, "high, low"},
        {[&] { return r->deadTasksPerPriorityInc(low, 0); }, 0, "dead low"},
        {[&] { return r->deadTasksPerPriorityIs(low, 6), r->deadTasksPerPriority(low); }, 6, "dead low"},
        {[&] { return r->deadTasksPerPriorityIs(low, 6), r->deadTasksPerPriorityInc(low, 0); }, 6, ""},
        {[&] { return r->deadTasksPerPriorityInc(high, 1); }, 1, "dead high"},
        {[&] { return deadPerPriority = r->deadTasksPerPriority().begin(), 0; }, 0, ""},
        {[&] {
             return r->deadTasksPerPriorityDel(deadPerPriority) + r->deadTasksPerPriorityDel(deadPerPriority);
         },
         7, "dead high, dead low"},
        {[&] { return r->deadTasksPerPriority().size(); }, 0, ""},
        {[&] { return r->deadTaskStatsIs("n", statOf(3)), r->deadTaskStatsIs("n", statOf(3)), 0; }, 0, "n3"},
        {[&] { return r->deadTaskStatsInc("n", statOf(4)).taskRun(); }, 7, ""},
        {[&] { return r->deadTaskStats("n")->taskRun(); }, 7, ""},
        {[&] { return dead = r->deadTaskStats().begin(), r->deadTaskStatsDel(dead).taskRun(); }, 7, "no n"},
        {[&] { return dead == r->deadTaskStats().end(); }, 1, ""},
        {[&] { return r->deadTaskStatsDel("n").taskRun() + (r->deadTaskStatsDelAll(), 0); }, 0, ""},
        {[&] { return r->deadTaskStatsInc("n", statOf(8)).taskDeadCount(); }, 1, "0"}, // a default one first
        {[&] { return r->tasksRegisteredIs(a.ptr()), r->tasksRegistered().size(); }, 2, ""}, // again
        {[&] { return walk = r->tasksRegisteredIterator(), drop(r->tasksRegisteredDel(walk)); }, 1, "task"},
        {[&] { return drop(r->tasksRegisteredDel(walk)) + drop(r->tasksRegisteredDel(walk)); }, 1, "task"},
        {[&] { return r->newTasksRegistered(a.ptr()), r->newTasksRegistered(b.ptr()), 0; }, 0, "task, task"},
        {[&] { return r->registerScheduler(r.ptr()), r->taskSchedulerIs(r.ptr(), true), 0; }, 0, ""},
        {[&] { return r->taskSchedulerIs(r.ptr(), false), r->taskScheduler(r.ptr()); }, 0, "scheduler"},
        {[&] { return r->taskSchedulerDel(r.ptr()), r->taskSchedulerDel(r.ptr()); }, 0, "scheduler"},
        {[&] { return r->registerScheduler(r.ptr()), r->taskScheduler(r.ptr()); }, 1, "scheduler"},
        {[&] { return schedulers = r->taskScheduler().begin(), r->taskSchedulerDel(schedulers); }, 1,
         "scheduler"},
        {[&] { return r->tasksPerPriorityIs(high, 1), r->tasksPerPriorityIs(low, 1), 0; }, 0, "high, low"},
    };
    for (auto const& row : rows) {
        r->notes.clear();
        EXPECT_EQ(row.result, row.act()) << &row - rows;
        EXPECT_EQ(row.notes, r->notes) << &row - rows;
    }
    EXPECT_THROW(r->tasksRegisteredIs(nullptr), RangeException);
}

/// A scheduler whose registry gives back another task than the one asked for.
struct Confused : HandScheduler {
    using HandScheduler::HandScheduler;
    using HandScheduler::tasksRegisteredDel;
    Task* tasksRegisteredDel(TaskKey const&) override { return nullptr; }
};

TEST_F(TaskSchedulerTest, WhatIsMissingEndsTheProcess) {
    auto const base = TaskScheduler::TaskSchedulerIs("base", root.ptr());
    auto const bare = TaskSchedulerRoot::TaskSchedulerRootIs("bare");
    auto const rootless = TaskScheduler::TaskSchedulerIs("rootless", nullptr);
    Ptr<Confused> const confused = new Confused("confused", root.ptr());
    auto const sink = StringDumpContext::StringDumpContextIs();
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
