#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/Refusal.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>

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

/// Notes the steps of a run that its class overrides.
struct NotingTask : Task {
    explicit NotingTask(Noting& all) : Task(&all, TaskPriority::normal, "own"), told(all) {}
    void taskLastAddedToRunQueueTimeStampIs(TaskTimeStamp const&) override { told.note("added"); }
    void taskCurrentlyRunningIs(bool running) override { told.note(running ? "runs" : "ran"); }
    void taskRunInc(U32) override { told.note("run"); }
    Noting& told;
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
    Ptr<Task> own;
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
        {[&] { return own = new NotingTask(*r), own->scheduleTask(), r->handleSchedulerRun(), 0; }, 0,
         "task, normal, added, runs, run, ran"},
        {[&] { return own = nullptr, 0; }, 0, "0, task, normal, dead normal"},
    };
    for (auto const& row : rows) {
        r->notes.clear();
        EXPECT_EQ(row.result, row.act()) << &row - rows;
        EXPECT_EQ(row.notes, r->notes) << &row - rows;
    }
    EXPECT_THROW(r->tasksRegisteredIs(nullptr), RangeException);
}

TaskSchedulerPriorityStats stats(TaskPriority priority, U32 runnable, U32 idle, U32 dead, U64 runs) {
    TaskSchedulerPriorityStats result(priority);
    result.runnableTasksIs(runnable), result.idleTasksIs(idle), result.deadTasksIs(dead),
        result.totalRunCountIs(runs);
    return result;
}

TEST(TaskSchedulerQueueStats, AddsEntryByEntryToOnesThatAreThere) {
    TaskSchedulerQueueStats sum, other;
    for (U32 p = 0; p < 5; ++p) { // in any order
        sum.priorityIs(stats(TaskPriority::PriorityEnumInstance(p), 1, 0xffffffff, 3, 0xffffffff));
        other.priorityIs(stats(TaskPriority::PriorityEnumInstance(4 - p), 10, 20, 30, 32));
    }
    sum += other;
    sum += sum; // to itself
    EXPECT_EQ(stats(TaskPriority::normal, 22, 38, 66, 0x20000003e), *sum.priority(TaskPriority::normal));

    TaskSchedulerQueueStats one, empty;
    for (U32 const count : {5u, 1u}) // replaces
        one.priorityIs(stats(TaskPriority::absolute, count, 2, 3, 4));
    EXPECT_TRUE(one != empty && empty != one);
    EXPECT_EQ(one, empty += one) << "a missing absolute entry counts as zeros";
    EXPECT_DEATH(one += sum, HasSubstr("taskPriority() == rhs.taskPriority(), source TaskScheduler"));
}

struct TaskSchedulerStatsTest : HandTreeTest {
    /// Notes each reset, which may end it.
    struct Noted : Task {
        explicit Noted(TaskSchedulerStatsTest& t) : Task(t.root, TaskPriority::low, "task"), test(t) {}
        void resetStats() override {
            Task::resetStats();
            test.resets.push_back(taskKey());
            if (test.endsAtReset())
                std::erase_if(test.tasks, [this](auto const& t) { return t == this; });
        }
        TaskSchedulerStatsTest& test;
    };

    /// Makes that many tasks, each with a run, which the reset pass is to forget.
    void makeTasks(int count) {
        for (tasks.clear(); count > 0; --count) {
            tasks.push_back(new Noted(*this));
            tasks.back()->hasNotificationActiveIs(true);
            tasks.back()->taskRunFromTest();
        }
    }
    U32 runsOfTasks() const {
        U32 runs = 0;
        for (auto const& t : tasks)
            runs += t->taskRun();
        return runs;
    }

    std::vector<Ptr<Noted>> tasks;
    std::vector<TaskKey> resets;
    std::function<bool()> endsAtReset = [] { return false; };
};

TEST_F(TaskSchedulerStatsTest, TaskWhoseRunsCameFullCircleHasRun) {
    auto const wrapped = task("twin"), twin = task("twin");
    Ptr<OnRun> const works = new OnRun(wrapped, [&] { steady.advance(1ms); });
    wrapped->taskRunIs(~0u), wrapped->taskRunFromTest();
    std::vector<TaskStat> live;
    EXPECT_EQ(1u, root->getTaskStats(&live, false));
    EXPECT_EQ(0u, root->getTaskStats(&live, true));
    EXPECT_EQ(3u, live.size());
}

TEST_F(TaskSchedulerStatsTest, ResetReachesEveryTaskInRunsOfItsQuantumWhateverDiesAndComesMeanwhile) {
    Random random;
    bool mayEnd = false;
    endsAtReset = [&] { return mayEnd && random.oneIn(4); };
    for (int round = 0; round < 500; ++round) {
        makeTasks(30);
        task("dead", TaskPriority::scavenge)->scheduleTask();
        steady.advance(1s);
        root->runUntilIdle();
        root->resetStats();
        auto const resetting = root->resetStatsTask()->notifier();
        bool const isForced = random.oneIn(2);
        mayEnd = random.oneIn(2);
        resetting->taskForceYieldInTestIs(isForced);
        if (!isForced)
            resetting->taskQuantumIs(0.003);
        steady.perReadingIs(1ms); // a run resets the task that it resumes at and three more
        resets.clear();
        std::vector<TaskKey> order;
        for (Task* t = root->tasksRegistered().first(); t; t = root->tasksRegistered().after(t))
            order.push_back(t->taskKey());
        std::vector<Ptr<Task>> late;
        int runs = 0;
        for (; root->schedulerHasRunnableTasks() && runs < 200; ++runs) {
            task("dead");
            std::size_t const before = resets.size();
            root->handleSchedulerRun();
            ASSERT_TRUE(mayEnd || resets.size() - before <= (isForced ? 2 : 4));
            ASSERT_TRUE(runs > 0 || isForced || resets.size() > 1);
            ASSERT_TRUE(runs > 0 || (root->deadTaskStats().empty() && root->deadTasksPerPriority().empty()));
            TaskKey const bookmark = root->resetStatsTaskBookmark();
            if (random.oneIn(2)) // the bookmarked task dies
                std::erase_if(tasks, [&](auto const& t) { return t->taskKey() == bookmark; });
            if (random.oneIn(4) && !tasks.empty())
                tasks.erase(tasks.begin() + static_cast<std::ptrdiff_t>(random.below(tasks.size())));
            if (random.oneIn(4))
                late.push_back(task());
        }
        ASSERT_LT(runs, 200);
        ASSERT_EQ(0u, runsOfTasks() + root->runTaskCount(TaskPriority::scavenge));
        auto const stats = root->queueStats();
        for (auto const& [priority, entry] : stats.priority())
            ASSERT_EQ(root->runTaskCount(priority), entry.totalRunCount());
        ASSERT_LT(root->schedulerMaxSchedulerSlip(), 1.0);
        steady.perReadingIs(0ms);
        auto place = order.begin(); // where a run resumes, its task is reset again
        for (TaskKey const& key : resets)
            ASSERT_NE(order.end(), place = std::find(place, order.end(), key));
    }
}

/// Tells each name that is gone.
struct Telling : HandScheduler {
    using HandScheduler::HandScheduler;
    void deadTaskStatsNotify(String8 name) override { deadTaskStats(name) ? void() : isGone(name); }
    std::function<void(String8)> isGone;
};

TEST_F(TaskSchedulerStatsTest, ResetAskedForWhileNamesAreDroppedBeginsAgainAndTellsEachNameOnce) {
    for (bool const byWhatHears : {false, true}) {
        Ptr<Telling> const s = new Telling("s", root.ptr());
        auto const named = [&](char const* name) { return Task::TaskIs(s, TaskPriority::low, name); };
        auto const t = named("t");
        String names;
        bool asks = true;
        auto const mayAsk = [&](bool hears) {
            if (hears == byWhatHears && names.size() == 1 && std::exchange(asks, false))
                t->taskRunFromTest(), named("d"), s->resetStats();
        };
        s->isGone = [&](String8 name) { names += name, mayAsk(true); };
        named("a"), named("b"), named("c");
        s->resetStats();
        s->resetStatsTask()->notifier()->taskForceYieldInTestIs(true);
        for (int runs = 0; runs < 20; ++runs)
            s->handleSchedulerRun(), mayAsk(false);
        EXPECT_EQ(0u, t->taskRun());
        EXPECT_THAT(names, testing::UnorderedElementsAre('a', 'b', 'c', 'd'));
        s->resetStatsTaskDel();
    }
}

TEST_F(TaskSchedulerStatsTest, ResetWaitsUntilItIsAskedForAndAClockThatGoesBackInItEndsTheProcess) {
    makeTasks(3);
    task("dead");
    root->resetStatsTaskIs(root, TaskPriority::normal, "reset")->scheduleTask();
    root->runUntilIdle();
    EXPECT_TRUE(runsOfTasks() == 3 && root->deadTaskStats("dead")) << "no pass before one is asked for";
    root->resetStats();
    steady.perReadingIs(-1ms);
    EXPECT_DEATH(root->runUntilIdle(), HasSubstr("now >= taskLastRunTimeStamp_"));
}

} // namespace
