#include <group/TaskGroup.h>

#include <support/HandRoot.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskGroup;
using Kel::TaskGroupParentTask;
using Kel::TaskPriority;
using Kel::TaskScheduler;
using Mox::Ptr;
using Mox::Seconds;
using Mox::U32;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::OnAnything;
using TestSupport::OnRun;

constexpr auto workTime = 6ms;

/// Groups of a root that is run by hand, with tasks that take their time and write their name down.
struct TaskGroupTest : TestSupport::HandTreeTest {
    Ptr<TaskGroup> group(Mox::String8 const& name, Ptr<TaskScheduler> const& parent) {
        return TaskGroup::TaskGroupIs(name, TaskPriority::normal, false, parent);
    }
    static Ptr<TaskGroupParentTask> parentOf(Ptr<TaskGroup> const& group) {
        return group->parentTask()->notifier();
    }
    Ptr<TaskGroupParentTask> newParentOf(Ptr<TaskGroup> const& group, Mox::String8 const& name) {
        return TaskGroupParentTask::TaskGroupParentTaskIs(root, TaskPriority::low, name, group.ptr());
    }

    /// Schedules a new task; one whose name ends with "+" schedules itself for ever.
    Task& work(Ptr<TaskScheduler> const& scheduler, std::string const& name,
               std::function<void()> then = {}) {
        Ptr<Task> const t = Task::TaskIs(scheduler, TaskPriority::normal, name);
        workers.push_back(new OnRun(t, [this, then, raw = t.ptr()] {
            order += (order.empty() ? "" : " ") + raw->taskName();
            steady.advance(workTime);
            if (raw->taskName().back() == '+')
                raw->scheduleTask();
            if (then)
                then();
        }));
        t->scheduleTask();
        return *t;
    }
    std::string run(int passes) {
        order.clear();
        while (passes-- > 0)
            root->handleSchedulerRun();
        return order;
    }
    std::ptrdiff_t ignoredPasses() {
        auto const events = root->takeHistory();
        return std::ranges::count(events, "schedulerRunIgnoredWhileSuspended");
    }

    std::vector<Ptr<OnRun>> workers;
    std::string order;
};

TEST_F(TaskGroupTest, IsOneTaskOfItsParentScheduler) {
    auto g = TaskGroup::TaskGroupIs("g", TaskPriority::high, false, root);
    auto const parent = parentOf(g);
    EXPECT_EQ("TaskGroup;g", g->schedulerName());
    EXPECT_EQ("TaskGroup;g", parent->taskName());
    EXPECT_EQ(TaskPriority::high, parent->taskPriority());
    EXPECT_EQ(parent.ptr(), root->tasksRegistered(parent->taskKey()));
    EXPECT_TRUE(root->taskScheduler(g.ptr()));
    EXPECT_EQ(0.02, parent->taskQuantum());
    g->taskGroupQuantumIs(0.1);
    EXPECT_EQ(0.1, parent->taskQuantum());

    g = nullptr;
    EXPECT_FALSE(parent->taskGroup());
    EXPECT_EQ(1u, root->taskScheduler().size());
    parent->scheduleTask();
    EXPECT_EQ(1u, root->runUntilIdle()) << "a task without work";
    parent->resetStats();
    EXPECT_EQ(0u, parent->taskRun());
    EXPECT_EQ(1u, root->tasksRegistered().size()) << "no reset of any scheduler";
}

TEST_F(TaskGroupTest, WorkOfNestedGroupsIsThatOfOneTaskAtEachLevel) {
    auto const outer = group("outer", root), middle = group("middle", outer), inner = group("inner", middle);
    work(inner, "w");
    EXPECT_GT(root->takeRequests(), 0u);
    EXPECT_EQ("w", run(1));
    EXPECT_EQ(1u, parentOf(outer)->taskRun());
    EXPECT_TRUE(parentOf(outer)->taskBusy());
    EXPECT_EQ(1u, root->runUntilIdle());
    for (auto const& g : {outer, middle, inner}) {
        SCOPED_TRACE("one run with work and one empty run of " + g->taskGroupName());
        EXPECT_EQ(2u, parentOf(g)->taskRun());
        EXPECT_EQ(0.006, parentOf(g)->taskTotalRunTime());
        EXPECT_FALSE(parentOf(g)->taskBusy());
        EXPECT_FALSE(g->schedulerHasRunnableTasks());
        EXPECT_EQ(0u, g->moxAuditErrors(1));
    }
    EXPECT_EQ(1u, inner->runTaskCount(TaskPriority::normal));
    EXPECT_EQ(2u, root->runTaskCount(TaskPriority::normal));
    work(inner, "again");
    EXPECT_EQ(2u, root->runUntilIdle());
}

TEST_F(TaskGroupTest, FilesItsEventsInTheRootsHistory) {
    auto const g = group("g", root);
    work(g, "w");
    root->runUntilIdle();
    auto const context = Kel::StringDumpContext::StringDumpContextIs();
    auto const rootsContext = Kel::StringDumpContext::StringDumpContextIs();
    g->printHistory(context, 2);
    root->printHistory(rootsContext, 2);
    EXPECT_EQ(rootsContext->text(), context->text());
    EXPECT_THAT(root->takeHistory(),
                ElementsAre("schedule   N w", "schedulerRunnable", "schedule   N TaskGroup;g",
                            "schedulerRunnable", "schedulerRunnable", "busy       N TaskGroup;g",
                            "busy       N w",                                               //
                            "run start  N TaskGroup;g", "run start  N w", "run end    N w", //
                            "idle       N w", "schedule   N TaskGroup;g", "schedulerIdle",  //
                            "run end    N TaskGroup;g",                                     //
                            "run start  N TaskGroup;g", "run end    N TaskGroup;g",         //
                            "idle       N TaskGroup;g", "schedulerIdle", "schedulerIdle"));
}

TEST_F(TaskGroupTest, IsBoundedByItsQuantumAndTheRestWaits) {
    struct {
        Seconds outerQuantum, innerQuantum; // without an outer group: 0
        std::string order;                  // of four passes of the root
        U32 innerRuns;
        U32 violations200, violations500; // of the innermost group's parent task, by each run
    } const cases[] = {
        {0, 0.001, "g+ r+ g+ r+", 2, 0, 1},
        {0, 0.006, "g+ r+ g+ r+", 2, 0, 0},
        {0, 0.0061, "g+ g+ r+ g+ g+ r+", 2, 0, 0},
        {0, 0.02, "g+ g+ g+ g+ r+ g+ g+ g+ g+ r+", 2, 0, 0},
        {0.001, 0.012, "g+ g+ r+ g+ g+ r+", 2, 0, 0},
        {0.02, 0.01, "g+ g+ g+ g+ r+ g+ g+ g+ g+ r+", 4, 0, 0},
        {0.02, 0.003, "g+ g+ g+ g+ r+ g+ g+ g+ g+ r+", 8, 1, 0},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(testing::Message() << c.outerQuantum << ' ' << c.innerQuantum);
        workers.clear();
        root->runUntilIdle();
        Ptr<TaskScheduler> parent = root;
        if (c.outerQuantum > 0) {
            auto const outer = group("outer", root);
            outer->taskGroupQuantumIs(c.outerQuantum);
            parent = outer;
        }
        auto const g = group("g", parent);
        g->taskGroupQuantumIs(c.innerQuantum);
        work(g, "g+");
        work(root, "r+");
        EXPECT_EQ(c.order, run(4));
        EXPECT_EQ(c.innerRuns, parentOf(g)->taskRun());
        EXPECT_EQ(c.violations200 * c.innerRuns, parentOf(g)->taskQuantumViolation200());
        EXPECT_EQ(c.violations500 * c.innerRuns, parentOf(g)->taskQuantumViolation500());
    }
}

TEST_F(TaskGroupTest, QuantumSpentBeforeTheFirstPassLeavesTheWorkForTheNextRun) {
    auto const g = group("g", root);
    auto const parent = parentOf(g);
    Ptr<OnAnything> const slow = new OnAnything(parent, [&](std::string_view callback) {
        if (callback == "onTaskCurrentlyRunning" && parent->taskRun() == 0)
            steady.advance(20ms);
    });
    work(g, "w");
    EXPECT_EQ("", run(1));
    EXPECT_TRUE(parent->taskScheduled());
    EXPECT_EQ("w", run(1));
}

TEST_F(TaskGroupTest, SuspendedRootEndsTheLoopAndIgnoresOnePass) {
    auto const g = group("g", root);
    auto const parent = parentOf(g);
    work(g, "a", [&] { root->suspendedIs(true); });
    work(g, "b");
    EXPECT_EQ("a", run(1));
    EXPECT_TRUE(parent->taskScheduled());
    EXPECT_GT(root->takeRequests(), 0u);
    EXPECT_EQ("", run(1));
    EXPECT_EQ(0u, root->takeRequests()) << "nobody asks for another pass";
    EXPECT_EQ(2, ignoredPasses()) << "the group's, and the root's";

    parent->taskRunFromTest(); // by hand, although nothing is to run
    EXPECT_EQ(1, ignoredPasses());
    EXPECT_TRUE(parent->taskScheduled());
    root->suspendedIs(false);
    EXPECT_GT(root->takeRequests(), 0u);
    EXPECT_EQ("b", run(1));
}

TEST_F(TaskGroupTest, SuspendedParentTaskHoldsItsGroupBack) {
    auto const g = group("g", root);
    parentOf(g)->taskSuspendedForTestIs(true);
    work(g, "w");
    EXPECT_EQ("", run(2));
    parentOf(g)->taskSuspendedForTestIs(false);
    EXPECT_EQ("w", run(1));
}

TEST_F(TaskGroupTest, DetachedInItsLoopRunsDryWhateverTheQuantum) {
    auto const g = group("g", root);
    g->taskGroupQuantumIs(0.001);
    Ptr<Task> detached;
    work(g, "a", [&] {
        auto const parent = parentOf(g);
        EXPECT_EQ(parent.ptr(), g->parentTaskDel().ptr());
        EXPECT_FALSE(g->parentTaskDel());
        EXPECT_EQ(g.ptr(), parent->taskGroup());
        detached = parent;
    });
    work(g, "b", [&] { work(g, "d"); });
    work(g, "c");
    EXPECT_EQ("a b c d", run(1));
    EXPECT_FALSE(g->schedulerHasRunnableTasks());
    detached->taskRunFromTest();
    EXPECT_EQ("a b c d", order);
    EXPECT_DEATH(work(g, "e"), HasSubstr("__null != parentTask_, source TaskGroup"));
}

TEST_F(TaskGroupTest, AttachedParentTaskLooksAfterWhatIsRunnable) {
    auto const g = group("g", root);
    auto const first = parentOf(g), second = newParentOf(g, "second"), third = newParentOf(g, "third");
    work(g, "a", [&] { g->parentTaskIs(third); }); // in the middle of the loop
    work(g, "b");
    ASSERT_EQ(first.ptr(), g->parentTaskDel().ptr());
    g->parentTaskIs(second);
    EXPECT_TRUE(second->taskScheduled());
    EXPECT_TRUE(first->taskScheduled()) << "it was scheduled, and finds nothing to do";
    EXPECT_EQ("", run(1));
    EXPECT_EQ("a", run(1));
    EXPECT_TRUE(third->taskScheduled());
    EXPECT_EQ("b", run(2));
    g->taskGroupQuantumIs(0.5);
    EXPECT_THAT((std::vector{first->taskQuantum(), second->taskQuantum(), third->taskQuantum()}),
                ElementsAre(0.02, 0.02, 0.5));
}

TEST_F(TaskGroupTest, LoopsNestWhenATaskRunsItsOwnGroup) {
    auto const g = group("g", root);
    work(g, "a", [&] { parentOf(g)->taskRunFromTest(); });
    work(g, "b");
    EXPECT_EQ("a b", run(1));
    root->runUntilIdle();
    EXPECT_EQ(0.012, parentOf(g)->taskRunTimeHighWaterMark());
    EXPECT_EQ(0u, root->moxAuditErrors(1) + g->moxAuditErrors(1));
}

/// Counts how often its parent task got another group.
struct OnTaskGroup : TaskGroupParentTask::Notifiee {
    explicit OnTaskGroup(Ptr<TaskGroupParentTask> const& task) { notifierIs(task); }
    void onTaskGroup() override { ++changes; }
    U32 changes = 0;
};

TEST_F(TaskGroupTest, EveryParentTaskThatNamesItIsToldWhenItGoes) {
    auto g = group("g", root);
    auto const other = group("other", root);
    auto const attached = parentOf(g), second = newParentOf(g, "2"), moved = newParentOf(g, "3");
    newParentOf(g, "gone");
    std::vector<Ptr<OnTaskGroup>> watches;
    for (auto const& task : {attached, second, moved})
        watches.push_back(new OnTaskGroup(task));
    moved->taskGroupIs(other.ptr());
    moved->taskGroupIs(other.ptr());
    g = nullptr;
    EXPECT_FALSE(attached->taskGroup());
    EXPECT_FALSE(second->taskGroup());
    EXPECT_EQ(other.ptr(), moved->taskGroup());
    for (auto const& watch : watches)
        EXPECT_EQ(1u, watch->changes);
}

// Each level's reset-stats task is of normal priority, which an enforcing group refuses from anybody else.
TEST_F(TaskGroupTest, ResettingTheRootResetsEveryLevel) {
    auto const outer = TaskGroup::TaskGroupIs("outer", TaskPriority::high, true, root);
    auto const inner = TaskGroup::TaskGroupIs("inner", TaskPriority::high, true, outer);
    auto const t = Task::TaskIs(inner, TaskPriority::high, "t");
    Task::TaskIs(inner, TaskPriority::high, "dead");
    t->scheduleTask();
    root->runUntilIdle();
    EXPECT_EQ(1u, t->taskRun());
    root->resetStats();
    root->runUntilIdle();
    EXPECT_EQ(0u, t->taskRun());
    EXPECT_EQ(0u, inner->runTaskCount(TaskPriority::high));
    EXPECT_EQ(0u, inner->deadTaskStats().size());
    ASSERT_TRUE(inner->resetStatsTask());
    EXPECT_DEATH(Task::TaskIs(inner, TaskPriority::normal, "refused"),
                 HasSubstr("task->taskPriority() == taskGroupPriority(), source TaskGroup"));
}

/// What the owner of a scene lets go of.
enum class LetGo { everything, allButParentTasks, allButTasks, theRootFirst };

/// A chain of groups with two tasks in the innermost and a reset of statistics under way. At one of the
/// callbacks that their tasks make, the owner lets go.
class Scene {
  public:
    Scene(TestSupport::HandTree& tree, int levels, bool watchesBeforeGroups) : tree_(tree) {
        Ptr<TaskScheduler> scheduler = tree_.root;
        for (int level = 0; level < levels; ++level) {
            auto const group = groups_.emplace_back(
                TaskGroup::TaskGroupIs(std::to_string(level), TaskPriority::normal, false, scheduler));
            auto const parent = parents_.emplace_back(group->parentTask()->notifier());
            if (watchesBeforeGroups)
                group->parentTaskDel();
            watch(parent);
            if (watchesBeforeGroups)
                group->parentTaskIs(parent);
            scheduler = group;
        }
        for (char const* name : {"a", "b"})
            watch(tasks_.emplace_back(Task::TaskIs(scheduler, TaskPriority::normal, name)));
        again_ = new OnRun(tasks_[0], [this] {
            if (++runs_ == 1 && !tasks_.empty())
                tasks_[0]->scheduleTask();
        });
    }

    /// Lets go at the callback of that number; returns whether there was one.
    bool play(int releaseAt, LetGo what) {
        releaseAt_ = releaseAt;
        what_ = what;
        tree_.root->resetStats();
        for (std::size_t i = 0; i < 2 && i < tasks_.size(); ++i)
            Ptr<Task>(tasks_[i])->scheduleTask();
        runUntilIdle();
        return releaseAt_ < 0;
    }
    void runUntilIdle() {
        while (tree_.root && tree_.root->schedulerHasRunnableTasks())
            tree_.root->handleSchedulerRun();
    }
    void release(LetGo what) {
        if (what == LetGo::theRootFirst)
            tree_.root = nullptr;
        groups_.clear();
        if (what != LetGo::allButTasks) {
            again_ = nullptr;
            watches_.clear();
            tasks_.clear();
        }
        if (what != LetGo::allButParentTasks)
            parents_.clear();
    }

    std::vector<Ptr<TaskGroupParentTask>> const& parents() const { return parents_; }
    std::vector<Ptr<Task>> const& tasks() const { return tasks_; }
    /// Of the first task.
    int runs() const { return runs_; }

  private:
    void watch(Ptr<Task> const& task) {
        watches_.push_back(new OnAnything(task, [this](std::string_view) {
            if (releaseAt_-- == 0)
                release(what_);
        }));
    }

    TestSupport::HandTree& tree_;
    std::vector<Ptr<TaskGroup>> groups_;
    std::vector<Ptr<TaskGroupParentTask>> parents_;
    std::vector<Ptr<Task>> tasks_;
    std::vector<Ptr<OnAnything>> watches_;
    Ptr<OnRun> again_;
    int runs_ = 0;
    int releaseAt_ = 0;
    LetGo what_ = LetGo::everything;
};

class GroupLife : public testing::TestWithParam<std::tuple<int, bool, LetGo>> {};

TEST_P(GroupLife, MayEndInsideAnyCallbackOfItsTasks) {
    auto const [levels, watchesBeforeGroups, what] = GetParam();
    int callbacks = 0;
    for (bool released = true; released; ++callbacks) {
        SCOPED_TRACE(callbacks);
        TestSupport::HandTree tree;
        auto const name = tree.root->nameRecord();
        Scene scene(tree, levels, watchesBeforeGroups);
        released = scene.play(callbacks, what);
        if (!released)
            scene.release(what);
        scene.runUntilIdle();
        if (what == LetGo::allButTasks) {
            EXPECT_EQ(2, scene.runs()) << "tasks keep their groups going";
        }
        if (what == LetGo::allButParentTasks) {
            EXPECT_FALSE(scene.parents().back()->taskGroup()) << "the others keep groups that they are in";
        }
        scene.release(LetGo::everything);
        if (!tree.root) {
            EXPECT_EQ(1u, name->use_count()) << "everything went";
            continue;
        }
        EXPECT_EQ(1u, tree.root->taskScheduler().size());
        EXPECT_EQ(0u, tree.root->moxAuditErrors(1));
    }
    EXPECT_GT(callbacks, 12 + 8 * levels) << "the scene is played to its end";
}

INSTANTIATE_TEST_SUITE_P(Groups, GroupLife,
                         testing::Combine(testing::Values(1, 3), testing::Bool(),
                                          testing::Values(LetGo::everything, LetGo::allButParentTasks,
                                                          LetGo::allButTasks, LetGo::theRootFirst)));

TEST_F(TaskGroupTest, MayBeReleasedWithWorkQueuedAtEveryLevel) {
    for (LetGo const what : {LetGo::everything, LetGo::allButParentTasks, LetGo::theRootFirst}) {
        TestSupport::HandTree* const tree = this;
        if (!root)
            root = TestSupport::HandRoot::HandRootIs();
        auto const name = root->nameRecord();
        Scene scene(*tree, 3, false);
        scene.tasks()[1]->scheduleTask();
        scene.release(what);
        scene.runUntilIdle();
        scene.release(LetGo::everything);
        if (root)
            EXPECT_EQ(0u, root->tasksRegistered().size());
        else
            EXPECT_EQ(1u, name->use_count());
    }
}

} // namespace
