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
    sum += other;
    sum += sum; // to itself
    EXPECT_EQ(stats(TaskPriority::normal, 22, 38, 66, 0x20000003e), *sum.priority(TaskPriority::normal));

    TaskSchedulerQueueStats one, empty;
    for (U32 const count : {5u, 1u}) // replaces
        one.priorityIs(stats(TaskPriority::absolute, count, 2, 3, 4));
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
