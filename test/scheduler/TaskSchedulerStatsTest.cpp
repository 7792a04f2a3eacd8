#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>

namespace {

using namespace TestSupport;
using testing::HasSubstr;

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
    EXPECT_NE(sum, other);
    sum += other;
    sum += sum; // to itself
    EXPECT_EQ(stats(TaskPriority::normal, 22, 38, 66, 0x20000003e), *sum.priority(TaskPriority::normal));

    TaskSchedulerQueueStats one, empty;
    for (U32 const count : {5u, 1u}) // replaces
        one.priorityIs(stats(TaskPriority::absolute, count, 2, 3, 4));
    EXPECT_EQ(one, empty += one) << "a missing absolute entry counts as zeros";
    EXPECT_NE(one, sum);
    EXPECT_DEATH(one += sum, HasSubstr("taskPriority() == rhs.taskPriority(), source TaskScheduler"));
    one.priorityDel(TaskPriority::absolute);
    EXPECT_EQ(nullptr, one.priority(TaskPriority::absolute));
}

struct TaskSchedulerStatsTest : HandTreeTest {
    /// Notes each reset, which may end it.
    struct Noted : Task {
        explicit Noted(TaskSchedulerStatsTest& t) : Task(t.root, TaskPriority::low, "task"), test(t) {}
        void resetStats() override {
            test.resets.push_back(taskKey());
            Task::resetStats();
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

    std::vector<TaskKey> resets;
    std::vector<Ptr<Noted>> tasks;
    std::function<bool()> endsAtReset = [] { return false; };
};

TEST_F(TaskSchedulerStatsTest, CountsRunnableAndIdleTasksAndFilesTheDeadByName) {
    for (auto const priority : {TaskPriority::low, TaskPriority::high}) {
        auto const t = task("n", priority);
        t->taskWorkCountInc(5);
        t->taskRunFromTest();
    }
    task("never ran");
    std::vector<TaskStat> live;
    auto const wrapped = task("twin"), twin = task("twin");
    Ptr<OnRun> const works = new OnRun(wrapped, [&] { steady.advance(1ms); });
    wrapped->taskRunIs(~0u), wrapped->taskRunFromTest();
    EXPECT_EQ(0u, wrapped->taskRun());
    EXPECT_EQ(1u, root->getTaskStats(&live, false)) << "one that ran 2^32 times has run";
    EXPECT_EQ(0u, root->getTaskStats(&live, true));
    EXPECT_EQ(3u, live.size());
    TaskStat const& dead = *root->deadTaskStats("n");
    EXPECT_EQ(2u, dead.taskDeadCount());
    EXPECT_EQ(10u, dead.taskWorkCount());
    EXPECT_EQ(2u, dead.taskRun());
    EXPECT_EQ(TaskPriority(TaskPriority::low), dead.taskPriority()) << "of the first that died";
    EXPECT_EQ(TaskKey(), dead.taskKey());

    auto const a = task("a", TaskPriority::low), b = task("b", TaskPriority::low),
               c = task("c", TaskPriority::low);
    a->scheduleTask();
    root->runUntilIdle();
    b->scheduleTask();
    EXPECT_EQ(5u, root->queueStats().priority().size());
    EXPECT_EQ(stats(TaskPriority::low, 1, 2, 1, 1), *root->queueStats().priority(TaskPriority::low));
}

// A quantum of three clock readings: a run resets the task that it resumes at and three more.
TEST_F(TaskSchedulerStatsTest, ResetGoesOverTheTasksInMapOrderInRunsOfItsQuantum) {
    for (bool const forced : {false, true}) {
        SCOPED_TRACE(forced ? "forced yield" : "a quantum of three readings");
        makeTasks(10);
        task("dead")->scheduleTask();
        steady.advance(5ms);
        root->runUntilIdle();
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
        EXPECT_LT(root->schedulerMaxSchedulerSlip(), 0.005);
        EXPECT_EQ(expected[forced ? 0 : 2], root->resetStatsTaskBookmark());
        EXPECT_LT(root->runUntilIdle(), forced ? 16u : 9u);
        EXPECT_EQ(0u, runsOfTasks());
        std::erase(expected, resetter->taskKey());
        resets.erase(std::unique(resets.begin(), resets.end()),
                     resets.end()); // bookmarked ones are reset twice
        EXPECT_THAT(resets, testing::ElementsAreArray(expected));
        steady.perReadingIs(0ms);
    }
}

TEST_F(TaskSchedulerStatsTest, ResetReachesEveryTaskWhateverDiesAndComesMeanwhile) {
    Random random;
    endsAtReset = [&] { return random.oneIn(4); };
    for (int round = 0; round < 50; ++round) {
        makeTasks(30);
        root->resetStats();
        root->resetStatsTask()->notifier()->taskForceYieldInTestIs(true);
        std::vector<Ptr<Noted>> late;
        int runs = 0;
        for (; root->schedulerHasRunnableTasks() && runs < 200; ++runs) {
            task("dead");
            root->handleSchedulerRun();
            ASSERT_TRUE(runs > 0 || root->deadTaskStats().empty());
            TaskKey const bookmark = root->resetStatsTaskBookmark();
            if (random.oneIn(2)) // the bookmarked task dies
                std::erase_if(tasks, [&](auto const& t) { return t->taskKey() == bookmark; });
            if (random.oneIn(4) && !tasks.empty())
                tasks.erase(tasks.begin() + static_cast<std::ptrdiff_t>(random.below(tasks.size())));
            if (random.oneIn(4))
                late.push_back(new Noted(*this));
        }
        ASSERT_LT(runs, 200);
        ASSERT_EQ(0u, runsOfTasks());
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
