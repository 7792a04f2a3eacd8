#include <mox/Exception.h>
#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskKey;
using Kel::TaskPriority;
using Kel::TaskSchedulerPriorityStats;
using Kel::TaskSchedulerQueueStats;
using Kel::TaskStat;
using Mox::Ptr;
using Mox::U32;
using Mox::U64;
using testing::ElementsAreArray;
using testing::HasSubstr;

TaskSchedulerPriorityStats stats(TaskPriority priority, U32 runnable, U32 idle, U32 dead, U64 runs) {
    TaskSchedulerPriorityStats result(priority);
    result.runnableTasksIs(runnable), result.idleTasksIs(idle), result.deadTasksIs(dead),
        result.totalRunCountIs(runs);
    return result;
}

TEST(TaskSchedulerPriorityStats, EachFieldCountsForEqualityAndAllButThePriorityAdd) {
    auto const a = stats(TaskPriority::low, 1, 0xffffffff, 3, 0xffffffff);
    for (auto const& other : {stats(TaskPriority::high, 1, 0xffffffff, 3, 0xffffffff),
                              stats(TaskPriority::low, 2, 0xffffffff, 3, 0xffffffff),
                              stats(TaskPriority::low, 1, 2, 3, 0xffffffff),
                              stats(TaskPriority::low, 1, 0xffffffff, 4, 0xffffffff),
                              stats(TaskPriority::low, 1, 0xffffffff, 3, 0)})
        EXPECT_NE(a, other);
    EXPECT_EQ(stats(TaskPriority::low, 11, 19, 33, 0x10000001f),
              a + stats(TaskPriority::low, 10, 20, 30, 32));
    EXPECT_EQ(TaskSchedulerPriorityStats(), stats(TaskPriority::absolute, 0, 0, 0, 0));
    EXPECT_DEATH(a + stats(TaskPriority::high, 1, 1, 1, 1),
                 HasSubstr("taskPriority() == rhs.taskPriority(), source TaskScheduler"));
}

TEST(TaskSchedulerQueueStats, AddsEntryByEntryToOnesThatAreThere) {
    auto const all = [](U32 count, bool backwards) {
        TaskSchedulerQueueStats result;
        for (U32 p = 0; p < 5; ++p)
            result.priorityIs(
                stats(TaskPriority::PriorityEnumInstance(backwards ? 4 - p : p), count, 2 * count, 3, 4));
        return result;
    };
    EXPECT_EQ(all(1, false), all(1, true)) << "the order of insertion is no matter";
    EXPECT_NE(all(1, false), all(2, false));
    TaskSchedulerQueueStats sum = all(1, false) + all(10, true);
    sum += sum; // to itself
    EXPECT_EQ(stats(TaskPriority::normal, 22, 44, 12, 16), *sum.priority(TaskPriority::normal));

    TaskSchedulerQueueStats one;
    one.priorityIs(stats(TaskPriority::absolute, 1, 2, 3, 4));
    one.priorityIs(stats(TaskPriority::absolute, 5, 6, 7, 8)); // replaces
    EXPECT_EQ(1u, one.priority().size());
    TaskSchedulerQueueStats empty;
    EXPECT_NE(one, empty);
    EXPECT_EQ(one, empty += one) << "a missing absolute entry counts as zeros";
    EXPECT_NE(all(1, false), one);
    EXPECT_DEATH(one += all(1, false),
                 HasSubstr("taskPriority() == rhs.taskPriority(), source TaskScheduler"));
    one.priorityDel(TaskPriority::absolute);
    EXPECT_EQ(nullptr, one.priority(TaskPriority::absolute));
}

struct TaskSchedulerStatsTest : TestSupport::HandTreeTest {
    /// Makes that many tasks, each with a run, which the reset pass is to forget.
    void makeTasks(int count) {
        while (count-- > 0) {
            tasks.push_back(new Noted(root, TaskPriority::low, "task", resets));
            tasks.back()->hasNotificationActiveIs(true);
            tasks.back()->taskRunFromTest();
        }
    }
    std::vector<TaskKey> inMapOrder() const {
        std::vector<TaskKey> keys;
        for (Task* t = root->tasksRegistered().first(); t; t = root->tasksRegistered().after(t))
            keys.push_back(t->taskKey());
        return keys;
    }
    U32 runsOfTasks() const {
        U32 runs = 0;
        for (auto const& t : tasks)
            runs += t->taskRun();
        return runs;
    }

    /// Notes each reset.
    struct Noted : Task {
        Noted(Ptr<Kel::TaskScheduler> const& s, TaskPriority p, Mox::String const& n,
              std::vector<TaskKey>& log)
            : Task(s, p, n), resetsSoFar(log) {}
        void resetStats() override {
            resetsSoFar.push_back(taskKey());
            Task::resetStats();
        }
        std::vector<TaskKey>& resetsSoFar;
    };

    std::vector<TaskKey> resets;
    std::vector<Ptr<Noted>> tasks;
};

TEST_F(TaskSchedulerStatsTest, DeadTasksOfANameAreOneRecord) {
    TaskKey last;
    for (auto const priority : {TaskPriority::low, TaskPriority::high}) {
        auto const t = task("n", priority);
        t->taskWorkCountInc(5);
        t->taskRunFromTest();
        last = t->taskKey();
    }
    TaskStat const& dead = *root->deadTaskStats("n");
    EXPECT_EQ(2u, dead.taskDeadCount());
    EXPECT_EQ(10u, dead.taskWorkCount());
    EXPECT_EQ(2u, dead.taskRun());
    EXPECT_EQ(TaskPriority(TaskPriority::low), dead.taskPriority()) << "of the first that died";
    EXPECT_EQ(TaskKey(), dead.taskKey());
    EXPECT_EQ(1u, root->deadTaskStats().size());
    EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::high));
}

TEST_F(TaskSchedulerStatsTest, QueueStatsHaveEveryPriority) {
    EXPECT_EQ(5u, root->queueStats().priority().size());
    EXPECT_EQ(stats(TaskPriority::low, 0, 0, 0, 0), *root->queueStats().priority(TaskPriority::low));
    auto const a = task("a", TaskPriority::low), b = task("b", TaskPriority::low),
               c = task("c", TaskPriority::low);
    task("dead", TaskPriority::low)->taskRunFromTest();
    a->scheduleTask();
    root->runUntilIdle();
    b->scheduleTask();
    b->unscheduleTask();
    b->scheduleTask();
    EXPECT_EQ(stats(TaskPriority::low, 1, 2, 1, 1), *root->queueStats().priority(TaskPriority::low));
}

TEST_F(TaskSchedulerStatsTest, TasksThatNeverRanAreLeftOutAndCounted) {
    makeTasks(2);
    auto const idle = task("idle");
    tasks.pop_back();
    { auto const neverRan = task("never ran"); }
    std::vector<TaskStat> live, dead;
    EXPECT_EQ(1u, root->getTaskStats(&live, false));
    EXPECT_EQ(1u, root->getDeadTaskStats(&dead, false));
    EXPECT_EQ("task", live.at(0).taskName());
    EXPECT_EQ("task", dead.at(0).taskName());
    EXPECT_EQ(0u, root->getTaskStats(&live, true));
    EXPECT_EQ(0u, root->getDeadTaskStats(&dead, true));
    EXPECT_EQ(3u, live.size()) << "appended";
    EXPECT_EQ(3u, dead.size());
}

TEST_F(TaskSchedulerStatsTest, ResetClearsTasksRunsSlipAndTheDead) {
    makeTasks(3);
    task("dead")->scheduleTask();
    steady.advance(5ms);
    root->runUntilIdle();
    tasks[0]->scheduleTask();
    root->runUntilIdle();
    root->resetStats();
    root->resetStats();
    auto const resetter = root->resetStatsTask()->notifier();
    EXPECT_EQ("root;ResetStats", resetter->taskName());
    EXPECT_EQ(TaskPriority(TaskPriority::normal), resetter->taskPriority());
    EXPECT_EQ(4u, root->tasksRegistered().size()) << "one reset task";
    EXPECT_EQ(1u, root->runUntilIdle());
    EXPECT_EQ(0u, runsOfTasks());
    EXPECT_EQ(0.0, root->schedulerMaxSchedulerSlip());
    EXPECT_TRUE(root->deadTaskStats().empty());
    EXPECT_TRUE(root->deadTasksPerPriority().empty());
    for (U32 p = 0; p < 5; ++p)
        EXPECT_EQ(0u, root->runTaskCount(TaskPriority::PriorityEnumInstance(p)));
    EXPECT_EQ(resetter, root->resetStatsTaskIs(root, TaskPriority::low, "ignored"));
}

// A quantum of three clock readings: a run resets the task that it resumes at and three more.
TEST_F(TaskSchedulerStatsTest, ResetGoesOverTheTasksInMapOrderInRunsOfItsQuantum) {
    for (bool const forced : {false, true}) {
        SCOPED_TRACE(forced ? "forced yield" : "a quantum of three readings");
        tasks.clear();
        makeTasks(10);
        { auto const dead = task("dead"); }
        root->resetStats();
        auto const resetter = root->resetStatsTask()->notifier();
        resetter->taskForceYieldInTestIs(forced);
        if (!forced)
            resetter->taskQuantumIs(0.003);
        steady.perReadingIs(1ms);
        auto expected = inMapOrder();
        resets.clear();
        root->handleSchedulerRun();
        EXPECT_TRUE(root->deadTaskStats().empty() && root->deadTasksPerPriority().empty())
            << "by the first run";
        EXPECT_TRUE(resetter->taskScheduled());
        EXPECT_EQ(expected[forced ? 0 : 2], root->resetStatsTaskBookmark());
        U32 runs = 1;
        for (; root->schedulerHasRunnableTasks() && runs < 100; ++runs)
            root->handleSchedulerRun();
        EXPECT_EQ(0u, runsOfTasks());
        EXPECT_LT(runs, forced ? 14u : 8u);
        std::erase(expected, resetter->taskKey());
        resets.erase(std::unique(resets.begin(), resets.end()),
                     resets.end()); // bookmarked ones are reset twice
        EXPECT_THAT(resets, ElementsAreArray(expected));
        EXPECT_FALSE(resetter->taskScheduled());
        steady.perReadingIs(0ms);
    }
}

TEST_F(TaskSchedulerStatsTest, ResetReachesEveryTaskWhateverDiesAndComesMeanwhile) {
    TestSupport::Random random;
    for (int round = 0; round < 50; ++round) {
        tasks.clear();
        makeTasks(30);
        root->resetStats();
        root->resetStatsTask()->notifier()->taskForceYieldInTestIs(true);
        std::vector<Ptr<Noted>> late;
        int runs = 0;
        for (; root->schedulerHasRunnableTasks() && runs < 200; ++runs) {
            root->handleSchedulerRun();
            TaskKey const bookmark = root->resetStatsTaskBookmark();
            if (random.oneIn(2)) // the bookmarked task dies
                std::erase_if(tasks, [&](auto const& t) { return t->taskKey() == bookmark; });
            if (random.oneIn(4) && !tasks.empty())
                tasks.erase(tasks.begin() + static_cast<std::ptrdiff_t>(random.below(tasks.size())));
            if (random.oneIn(4))
                late.push_back(new Noted(root, TaskPriority::low, "late", resets));
        }
        ASSERT_LT(runs, 200);
        ASSERT_EQ(0u, runsOfTasks());
    }
}

TEST_F(TaskSchedulerStatsTest, NoPassBeforeTheFirstResetIsAskedFor) {
    makeTasks(1);
    EXPECT_EQ(TaskKey::none(), root->resetStatsTaskBookmark());
    root->resetStatsTaskIs(root, TaskPriority::normal, "reset")->scheduleTask();
    root->runUntilIdle();
    EXPECT_EQ(1u, runsOfTasks());
}

TEST_F(TaskSchedulerStatsTest, ClockThatGoesBackDuringAPassEndsTheProcess) {
    makeTasks(3);
    root->resetStats();
    steady.perReadingIs(-1ms);
    EXPECT_DEATH(root->runUntilIdle(), HasSubstr("now >= taskLastRunTimeStamp_"));
}

TEST_F(TaskSchedulerStatsTest, ResetTaskIsOrphanedWhenItIsReplacedOrLost) {
    root->resetStats();
    Ptr<Task> const first = root->resetStatsTask()->notifier();
    Ptr<Task> const second = root->newResetStatsTask(root, TaskPriority::normal, "again");
    EXPECT_EQ(nullptr, first->taskScheduler());
    EXPECT_EQ(root, second->taskScheduler());
    root->resetStatsTask()->notifierIs(nullptr);
    EXPECT_EQ(nullptr, second->taskScheduler());
}

TEST_F(TaskSchedulerStatsTest, ResetTaskIsOrphanedWhenItsSchedulerDropsIt) {
    auto const name = root->nameRecord();
    EXPECT_EQ(nullptr, root->resetStatsTaskDel());
    root->resetStats();
    auto resetter = root->resetStatsTask()->notifier();
    EXPECT_EQ(resetter, root->resetStatsTaskDel());
    EXPECT_FALSE(resetter->taskScheduler());
    EXPECT_FALSE(resetter->taskRunQueueLink().isLinked());
    EXPECT_FALSE(resetter->taskBusy());
    EXPECT_EQ(0u, root->auditErrors(1));
    EXPECT_EQ(1u, root->deadTaskStats("root;ResetStats")->taskDeadCount());
    EXPECT_EQ(0u, root->runUntilIdle());

    root->resetStats();
    root->resetStatsTask()->notifierIs(nullptr); // the reactor has lost its task, which nobody else held
    EXPECT_EQ(2u, root->deadTaskStats("root;ResetStats")->taskDeadCount());
    try {
        root->resetStats();
        ADD_FAILURE();
    } catch (Mox::RangeException const& e) {
        EXPECT_STREQ("null ValidPtr", e.what());
    }
    root->resetStatsTaskDel();
    root->resetStats();
    resetter = root->resetStatsTask()->notifier();
    root = nullptr;
    EXPECT_FALSE(resetter->taskScheduler()) << "a task that its scheduler made for itself does not keep it";
    resetter = nullptr;
    EXPECT_EQ(1u, name->use_count());
}

} // namespace
