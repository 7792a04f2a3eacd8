#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <map>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using Kel::TaskRunQueueLink;
using Mox::Ptr;
using Mox::U32;
using Mox::U64;
using TestSupport::OnRun;

TEST(RunOrder, PickFromBeyondTheLastPriorityFindsNothing) {
    TestSupport::HandTree tree;
    auto const t = tree.task("t", TaskPriority::scavenge);
    t->scheduleTask();
    EXPECT_EQ(nullptr, tree.root->pickOneTask({}, TaskPriority::oneBeyondLast));
    EXPECT_EQ(t.ptr(), tree.root->pickOneTask({}, TaskPriority::low));
}

/// What the scheduler is to do, written with five deques and weights in floating point.
struct Model {
    struct Queue {
        std::deque<int> tasks;
        U32 streak = 0;
        U64 runs = 0;
    };

    bool bump(std::size_t p) const {
        double const weight[] = {0, 64, 8, 1, 0};
        auto const backlog = [&](std::size_t q) {
            return static_cast<double>(queues[q].tasks.size()) * weight[q];
        };
        double lower = 0;
        for (std::size_t q = p + 1; q < 5; ++q)
            lower += backlog(q);
        return (p == 1 || p == 2) && lower * queues[p].streak > backlog(p);
    }
    int pick(std::size_t p = 0) {
        for (; p < 5 && queues[p].tasks.empty(); ++p)
            queues[p].streak = 0;
        if (p == 5)
            return -1;
        Queue& queue = queues[p];
        if (int const lower = bump(p) ? pick(p + 1) : -1; lower >= 0) {
            queue.streak = 0;
            return lower;
        }
        ++queue.streak;
        ++queue.runs;
        int const task = queue.tasks.front();
        queue.tasks.pop_front();
        return task;
    }
    /// Takes the task out; returns how often it was queued.
    U64 remove(std::size_t p, int task) { return std::erase(queues[p].tasks, task); }

    std::array<Queue, 5> queues;
};

/// How many passes go by, at most, until a low task that is runnable runs, whatever the tasks of higher
/// priority do: before each pass every number of them may be runnable.
class LongestWait {
  public:
    LongestWait(U32 high, U32 normal) {
        for (auto const& [tasks, count, priority] : {std::tuple(&high_, high, TaskPriority::high),
                                                     std::tuple(&normal_, normal, TaskPriority::normal)})
            while (tasks->size() < count)
                tasks->push_back(tree_.task("t", priority));
        low_->scheduleTask();
    }

    /// With the pass that runs it, from these streaks on.
    U64 passes(U32 highStreak, U32 normalStreak) {
        auto const [known, isNew] = known_.try_emplace({highStreak, normalStreak}, forEver);
        if (!isNew)
            return known->second; // for ever: back where it came from
        U64 longest = 0;
        for (std::size_t high = 0; high <= high_.size(); ++high)
            for (std::size_t normal = 0; normal <= normal_.size(); ++normal) {
                streaksAre(highStreak, normalStreak);
                runnableAre(high_, high);
                runnableAre(normal_, normal);
                longest = std::max(longest, 1 + afterPick());
            }
        return known->second = longest;
    }

  private:
    static constexpr U64 forEver = 1'000'000'000;

    using Tasks = std::vector<Ptr<Task>>;

    void streaksAre(U32 high, U32 normal) {
        tree_.root->runQueue(TaskPriority::high).backToBackRunCountIs(high);
        tree_.root->runQueue(TaskPriority::normal).backToBackRunCountIs(normal);
    }
    static void runnableAre(Tasks const& tasks, std::size_t count) {
        for (std::size_t i = 0; i < tasks.size(); ++i)
            i < count ? tasks[i]->scheduleTask() : tasks[i]->unscheduleTask();
    }
    U64 afterPick() {
        if (tree_.root->pickOneTask({}, TaskPriority::absolute) == low_) {
            low_->scheduleTask();
            return 0;
        }
        return passes(tree_.root->runQueue(TaskPriority::high).backToBackRunCount(),
                      tree_.root->runQueue(TaskPriority::normal).backToBackRunCount());
    }

    TestSupport::HandTree tree_;
    Tasks high_, normal_;
    Ptr<Task> const low_ = tree_.task("low", TaskPriority::low);
    std::map<std::pair<U32, U32>, U64> known_;
};

TEST(LongestWaitOfALowTask, IsWhatTheDesignDocumentProves) {
    for (U32 const high : {0u, 1u, 2u})
        for (U32 const normal : {0u, 1u, 2u}) {
            U64 const bound = (high == 0 ? 1 : 64 * high + 2) * (normal == 0 ? 1 : 8 * normal + 2);
            LongestWait wait(high, normal);
            EXPECT_EQ(bound, wait.passes(0, 0)) << high << " high tasks, " << normal << " normal ones";
            EXPECT_GE(bound, wait.passes(1'000'000, 1'000)) << "after a time without lower tasks";
        }
}

/// A random program of operations on a root and on the model.
class RandomSchedule {
  public:
    RandomSchedule() {
        for (int i = 0; i < 24; ++i)
            make(i);
    }

    void step() {
        auto const i = static_cast<int>(random_.below(slots_.size()));
        Slot& slot = slots_.at(i);
        auto& queue = model_.queues[slot.priority];
        switch (random_.below(16)) {
        case 0: // dies: counts as run when it is scheduled
            queue.runs += model_.remove(slot.priority, i);
            slots_.erase(i);
            make(i);
            break;
        case 1:
            queue.runs += model_.remove(slot.priority, i);
            slot.task->taskRunFromTest();
            EXPECT_EQ(i, std::exchange(ran_, -1));
            break;
        case 2:
            model_.remove(slot.priority, i);
            slot.task->unscheduleTask();
            break;
        case 3:
            if (bookmark_.isLinked())
                bookmark_.unlink();
            tree_.root->runQueue(priority(slot.priority)).list().pushBack(bookmark_);
            break;
        default: random_.oneIn(2) ? schedule(i) : pass();
        }
    }
    void compare(bool thoroughly) {
        for (std::size_t p = 0; p < 5; ++p) {
            auto& real = tree_.root->runQueue(priority(p));
            auto const& model = model_.queues[p];
            ASSERT_EQ(model.tasks.size(), tree_.root->runnableTaskCount(priority(p)));
            ASSERT_EQ(model.runs, tree_.root->runTaskCount(priority(p)));
            ASSERT_EQ(model.streak, real.backToBackRunCount());
            ASSERT_EQ(model.tasks.empty() ? nullptr : slots_.at(model.tasks.front()).task.ptr(),
                      real.first());
        }
        if (!thoroughly)
            return;
        ASSERT_EQ(0u, tree_.root->moxAuditErrors(1));
        ASSERT_EQ(slots_.size(), tree_.root->tasksRegistered().size());
    }

    U64 runs() const {
        U64 runs = 0;
        for (auto const& queue : model_.queues)
            runs += queue.runs;
        return runs;
    }

  private:
    struct Slot {
        std::size_t priority;
        Ptr<Task> task;
        Ptr<OnRun> reactor;
    };

    static TaskPriority priority(std::size_t p) {
        return TaskPriority::PriorityEnumInstance(static_cast<U32>(p));
    }
    void make(int i) {
        Slot& slot = slots_[i];
        slot.priority = random_.below(5);
        slot.task = tree_.task(std::to_string(i % 4), priority(slot.priority));
        slot.reactor = new OnRun(slot.task, [this, i] {
            ran_ = i;
            if (random_.oneIn(2))
                schedule(i);
        });
    }
    void schedule(int i) {
        Slot& slot = slots_.at(i);
        auto& tasks = model_.queues[slot.priority].tasks;
        if (std::ranges::find(tasks, i) == tasks.end())
            tasks.push_back(i);
        slot.task->scheduleTask();
    }
    void pass() {
        int const expected = model_.pick();
        ran_ = -1;
        tree_.root->handleSchedulerRun();
        EXPECT_EQ(expected, std::exchange(ran_, -1));
    }

    TestSupport::Random random_;
    TestSupport::HandTree tree_;
    TaskRunQueueLink bookmark_{TaskRunQueueLink::Entry::bookmark};
    Model model_;
    std::map<int, Slot> slots_;
    int ran_ = -1;
};

TEST(RunOrderModel, HoldsQueuesBumpRuleAndCounters) {
    RandomSchedule program;
    std::size_t const steps = TestSupport::operations(1'000'000);
    for (std::size_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
        program.step();
        program.compare(step % 256 == 0);
    }
    EXPECT_GT(program.runs(), steps / 4);
}

} // namespace
