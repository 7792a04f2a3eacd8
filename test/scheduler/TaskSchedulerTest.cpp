#include <support/HandRoot.h>
#include <support/Refusal.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

namespace {

using namespace TestSupport;
using testing::HasSubstr;

using TaskSchedulerTest = HandTreeTest;

/// The tasks that a root makes for itself, by what its interface says of each.
struct OwnTask {
    using Call = Ptr<Task> (*)(TaskSchedulerRoot& root);

    char const* name;
    Call make, replace, drop;
    void (*lose)(TaskSchedulerRoot&); // its reactor loses it
};
using Root = TaskSchedulerRoot;
constexpr auto low = TaskPriority::low, high = TaskPriority::high;
OwnTask const ownTasks[] = {
    {"reset", [](Root& r) { return r.resetStatsTaskIs(&r, low, "own"); },
     [](Root& r) { return r.newResetStatsTask(&r, low, "own"); },
     [](Root& r) { return r.resetStatsTaskDel(); }, [](Root& r) { r.resetStatsTask()->notifierIs(nullptr); }},
    {"trim", [](Root& r) -> Ptr<Task> { return r.trimHistoryTaskIs(&r, low, "own"); },
     [](Root& r) -> Ptr<Task> { return r.newTrimHistoryTask(&r, low, "own"); },
     [](Root& r) -> Ptr<Task> { return r.trimHistoryTaskDel(); },
     [](Root& r) { r.trimHistoryTask()->notifierIs(nullptr); }},
};

TEST_F(TaskSchedulerTest, ItsOwnTaskIsMadeOnceOrphanedWhenItIsDroppedAndKeepsNothing) {
    for (auto const& own : ownTasks) {
        SCOPED_TRACE(own.name);
        root = HandRoot::HandRootIs();
        auto const name = root->nameRecord();
        auto first = own.make(*root);
        auto t = own.replace(*root);
        EXPECT_FALSE(std::exchange(first, nullptr)->taskScheduler());
        EXPECT_EQ(t, own.make(*root));
        t->scheduleTask();
        EXPECT_EQ(t, own.drop(*root));
        EXPECT_FALSE(t->taskScheduler() || t->taskRunQueueLink().isLinked() || t->taskBusy());
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
    void note(std::string const& what) { notes += (notes.empty() ? "" : ", ") + what; }

    std::string notes;
};

TEST_F(TaskSchedulerTest, CollectionsGiveBackWhatTheyLoseAndNotifyOfWhatChanges) {
    Ptr<Noting> const r = new Noting;
    auto const a = Task::TaskIs(r, high, "a"), b = Task::TaskIs(r, low, "b");
    TaskStat stat;
    auto const statOf = [&](U32 runs) -> TaskStat const& {
        stat.taskNameIs("n"), stat.taskRunIs(runs);
        return stat;
    };
    auto deadPerPriority = r->deadTasksPerPriority().begin();
    auto dead = r->deadTaskStats().begin();
    auto walk = r->tasksRegisteredIterator();
    auto const drop = [&](Task* task) { return task ? 1u : 0u; };
    struct {
        std::function<U64()> act;
        U64 result;
        char const* notes;
    } const rows[] = {
        {[&] { return r->tasksPerPriorityInc(low, 2), r->tasksPerPriorityInc(low, 0); }, 3, "low"},
        {[&] { return r->auditErrors(0); }, 1, ""}, // tasks that are not there
        {[&] { return r->tasksPerPriorityIs(low, 3), r->tasksPerPriorityDec(low, 1); }, 2, "low"},
        {[&] { return r->tasksPerPriorityDel(low) + r->tasksPerPriorityDel(low); }, 2, "low"},
        {[&] { return r->newTasksPerPriority(low, 1), 0; }, 0, "low"},
        {[&] { return r->deadTasksPerPriorityIs(low, 6), r->deadTasksPerPriorityInc(low, 0); }, 6,
         "dead low"},
        {[&] { return r->deadTasksPerPriorityInc(high, 1); }, 1, "dead high"},
        {[&] { return deadPerPriority = r->deadTasksPerPriority().begin(), 0; }, 0, ""},
        {[&] { return r->deadTasksPerPriorityDel(deadPerPriority); }, 1, "dead high"}, // and goes on
        {[&] { return r->deadTasksPerPriorityDel(deadPerPriority); }, 6, "dead low"},
        {[&] { return r->deadTasksPerPriorityIs(low, 0), r->deadTasksPerPriorityDel(low); }, 0,
         "dead low, dead low"},
        {[&] { return r->deadTaskStatsIs("n", statOf(3)), r->deadTaskStatsIs("n", statOf(3)), 0; }, 0, "n3"},
        {[&] { return r->deadTaskStatsInc("n", statOf(4)).taskRun(); }, 7, ""},
        {[&] { return dead = r->deadTaskStats().begin(), r->deadTaskStatsDel(dead).taskRun(); }, 7, "no n"},
        {[&] { return r->deadTaskStatsInc("n", statOf(8)).taskDeadCount(); }, 1, "0"}, // a default one first
        {[&] { return r->tasksRegisteredIs(a.ptr()), r->tasksRegistered().size(); }, 2, ""}, // again
        {[&] { return walk = r->tasksRegisteredIterator(), drop(r->tasksRegisteredDel(walk)); }, 1, "task"},
        {[&] { return drop(r->tasksRegisteredDel(walk)) + drop(r->tasksRegisteredDel(walk)); }, 1, "task"},
        {[&] { return r->newTasksRegistered(a.ptr()), r->newTasksRegistered(b.ptr()), 0; }, 0, "task, task"},
        {[&] { return r->taskSchedulerIs(r.ptr(), true), r->taskSchedulerDel(r.ptr()); }, 1, "scheduler"},
        {[&] { return r->registerScheduler(r.ptr()), r->taskSchedulerDel(r.ptr()); }, 1,
         "scheduler, scheduler"},
    };
    for (auto const& row : rows) {
        r->notes.clear();
        EXPECT_EQ(row.result, row.act()) << &row - rows;
        EXPECT_EQ(row.notes, r->notes) << &row - rows;
    }
    EXPECT_THROW(r->tasksRegisteredIs(nullptr), RangeException);
}

} // namespace
