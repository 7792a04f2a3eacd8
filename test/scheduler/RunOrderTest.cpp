#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <map>
#include <sstream>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using Kel::TaskRunQueueLink;
using Mox::Ptr;
using Mox::U32;
using Mox::U64;
using TestSupport::OnRun;

TaskPriority priorityOf(char letter) {
    return TaskPriority::PriorityEnumInstance(static_cast<U32>(std::string("ahnls").find(letter)));
}

/// Tasks by name: the first letter is the priority, a "+" behind it makes one that schedules itself for ever.
struct RunOrderTest : TestSupport::HandTreeTest {
    void push(std::string const& names) {
        std::istringstream stream(names);
        for (std::string name; stream >> name;) {
            auto const t = tasks.emplace_back(task(name, priorityOf(name[0])));
            bool const forEver = name.back() == '+';
            reactors.push_back(new OnRun(t, [this, forEver, raw = t.ptr()] {
                order += (order.empty() ? "" : " ") + raw->taskName();
                if (forEver)
                    raw->scheduleTask();
            }));
            t->scheduleTask();
        }
    }
    std::string run(int passes) {
        order.clear();
        while (passes-- > 0)
            root->handleSchedulerRun();
        return order;
    }

    std::vector<Ptr<Task>> tasks;
    std::vector<Ptr<OnRun>> reactors;
    std::string order;
};

std::string times(int count, std::string const& text) {
    std::string result;
    while (count-- > 0)
        result += (result.empty() ? "" : " ") + text;
    return result;
}

TEST_F(RunOrderTest, FollowsPrioritiesAndTheBumpRule) {
    struct {
        std::string push;
        int passes;
        std::string order;
    } const cases[] = {
        {"s l n h a", 6, "a h n l s"},
        {"n1 n2 h1 n3 h2", 6, "h1 h2 n1 n2 n3"},
        {"a+ h n l s", 50, times(50, "a+")},
        {"s1 l+ s2", 50, times(50, "l+")},
        {"s1 s2 s3", 4, "s1 s2 s3"},
        {"s1+ s2+", 4, "s1+ s2+ s1+ s2+"},
        {"h+ n+", 30, times(3, times(9, "h+") + " n+")},           // 8 × 9 > 64
        {"n+ l+", 30, times(3, times(9, "n+") + " l+")},           // 1 × 9 > 8
        {"h+ l+", 66, times(65, "h+") + " l+"},                    // 1 × 65 > 64
        {"h1+ h2+ n+", 18, times(8, "h1+ h2+") + " h1+ n+"},       // 8 × 17 > 128: a longer backlog
        {"h+ n1 n2 n3 n4 n5 n6 n7 n8 n9", 6, "h+ n1 h+ h+ n2 h+"}, // 72 > 64, then 64 × 2 > 64
        {"h+ s1 s2 s3", 300, times(300, "h+")},                    // scavenge bumps nobody
        {"h+ n+ l+", 90, times(9, times(8, "h+") + " n+") + " " + times(8, "h+") + " l+"}, // 9 × 8 > 64
        {"a+ a+ h", 3, "a+ a+ a+"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.push);
        tasks.clear(), reactors.clear();
        root = TestSupport::HandRoot::HandRootIs();
        push(c.push);
        EXPECT_EQ(c.order, run(c.passes));
        EXPECT_EQ(0u, root->auditErrors(1));
    }
}

TEST_F(RunOrderTest, StreakIsForgottenWhenItsQueueWasEmpty) {
    push("h+ n+");
    EXPECT_EQ(times(8, "h+"), run(8));
    tasks[0]->unscheduleTask();
    EXPECT_EQ("n+", run(1));
    tasks[0]->scheduleTask();
    EXPECT_EQ(times(9, "h+") + " n+", run(10));
}

TEST_F(RunOrderTest, PickFromBeyondTheLastPriorityFindsNothing) {
    auto const t = task("t", TaskPriority::scavenge);
    t->scheduleTask();
    EXPECT_EQ(nullptr, root->pickOneTask({}, TaskPriority::oneBeyondLast));
    EXPECT_EQ(t.ptr(), root->pickOneTask({}, TaskPriority::low));
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
            placeBookmark(tree_.root->runQueue(priority(slot.priority)).list());
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
    void placeBookmark(Kel::IntrusiveLinkedListBase& list) {
        if (list.empty() || random_.oneIn(2))
            list.pushBack(bookmark_);
        else
            list.insertBefore(*list.front(), bookmark_);
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
