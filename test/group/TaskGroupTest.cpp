#include <group/TaskGroup.h>

#include <adapt/Callbacks.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::HasSubstr;

/// Groups of a root that is run by hand, with tasks that take their time and write their name down.
struct TaskGroupTest : HandTreeTest {
    Ptr<TaskGroup> group(String8 const& name, Ptr<TaskScheduler> const& parent) {
        return TaskGroup::TaskGroupIs(name, TaskPriority::normal, false, parent);
    }
    static Ptr<TaskGroupParentTask> parentOf(Ptr<TaskGroup> const& group) {
        return group->parentTask()->notifier();
    }
    Ptr<TaskGroupParentTask> newParentOf(Ptr<TaskGroup> const& group, String8 const& name) {
        return TaskGroupParentTask::TaskGroupParentTaskIs(root, TaskPriority::low, name, group.ptr());
    }

    /// Schedules a new task; one whose name ends with "+" schedules itself for ever.
    void work(Ptr<TaskScheduler> const& scheduler, std::string const& name, std::function<void()> then = {}) {
        Ptr<Task> const t = Task::TaskIs(scheduler, TaskPriority::normal, name);
        workers.push_back(new OnRun(t, [this, then, raw = t.ptr()] {
            order += (order.empty() ? "" : " ") + raw->taskName();
            steady.advance(6ms);
            if (raw->taskName().back() == '+')
                raw->scheduleTask();
            if (then)
                then();
        }));
        t->scheduleTask();
    }
    std::string run(int passes) {
        order.clear();
        while (passes-- > 0)
            root->handleSchedulerRun();
        return order;
    }

    std::vector<Ptr<OnRun>> workers;
    std::string order;
};

TEST_F(TaskGroupTest, IsOneTaskWhoseRunsAndEventsEncloseThoseOfItsTasks) {
    auto const g = group("g", root);
    work(g, "w");
    EXPECT_GT(root->takeRequests(), 0u);
    EXPECT_EQ(2u, root->runUntilIdle()) << "a run with work and an empty one";
    EXPECT_EQ(0.006, parentOf(g)->taskTotalRunTime());
    EXPECT_EQ(0u, g->moxAuditErrors(1));
    auto const context = StringDumpContext::StringDumpContextIs();
    auto const rootsContext = StringDumpContext::StringDumpContextIs();
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
    } const cases[] = {
        {0, 0.001, "g+ r+ g+ r+", 2},
        {0, 0.006, "g+ r+ g+ r+", 2},
        {0, 0.0061, "g+ g+ r+ g+ g+ r+", 2},
        {0.001, 0.012, "g+ g+ r+ g+ g+ r+", 2},
        {0.02, 0.01, "g+ g+ g+ g+ r+ g+ g+ g+ g+ r+", 4},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(testing::Message() << c.outerQuantum << ' ' << c.innerQuantum);
        workers.clear();
        root->runUntilIdle();
        auto const outer = group("outer", root);
        outer->taskGroupQuantumIs(std::max(c.outerQuantum, 0.001));
        auto const g = group("g", c.outerQuantum > 0 ? Ptr<TaskScheduler>(outer) : root);
        g->taskGroupQuantumIs(c.innerQuantum);
        work(g, "g+");
        work(root, "r+");
        EXPECT_EQ(c.order, run(4));
        EXPECT_EQ(c.innerRuns, parentOf(g)->taskRun());
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
    detached->resetStats();
    EXPECT_FALSE(g->resetStatsTask()) << "nobody would run its reset";
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

TEST_F(TaskGroupTest, EveryParentTaskThatNamesItIsToldWhenItGoes) {
    auto g = group("g", root);
    auto const other = group("other", root);
    auto const attached = parentOf(g), second = newParentOf(g, "2"), moved = newParentOf(g, "3");
    newParentOf(g, "gone");
    std::string told;
    Ptr<TaskGroupParentTask::NotifieeConst> const watches[] = {
        onTaskGroup(attached, [&] { told += "attached "; }), onTaskGroup(second, [&] { told += "second "; }),
        onTaskGroup(moved, [&] { told += "moved "; })};
    for (int i = 0; i < 2; ++i)
        moved->taskGroupIs(other.ptr());
    g = nullptr;
    EXPECT_EQ("moved attached second ", told);
    EXPECT_EQ(2u, root->taskScheduler().size());
    EXPECT_FALSE(attached->taskGroup() || second->taskGroup());
    EXPECT_EQ(other.ptr(), moved->taskGroup());
    attached->scheduleTask();
    EXPECT_EQ(1u, root->runUntilIdle()) << "a task without work";
    attached->resetStats();
    EXPECT_EQ(4u, root->tasksRegistered().size()) << "no reset of any scheduler";
}

// Each level's reset-stats task is of normal priority, which an enforcing group refuses from anybody else.
TEST_F(TaskGroupTest, ResettingTheRootResetsEveryLevel) {
    auto const outer = TaskGroup::TaskGroupIs("outer", TaskPriority::high, true, root);
    auto const inner = TaskGroup::TaskGroupIs("inner", TaskPriority::high, true, outer);
    auto const t = Task::TaskIs(inner, TaskPriority::high, "t");
    t->scheduleTask();
    root->runUntilIdle();
    EXPECT_EQ(1u, t->taskRun());
    root->resetStats();
    root->runUntilIdle();
    EXPECT_EQ(0u, t->taskRun());
    EXPECT_DEATH(Task::TaskIs(inner, TaskPriority::normal, "refused"),
                 HasSubstr("task->taskPriority() == taskGroupPriority(), source TaskGroup"));
}

/// What the owner of a scene lets go of.
enum class LetGo { everything, allButParentTasks, allButTasks, theRootFirst };

/// A chain of groups with two tasks in the innermost and a reset of statistics under way, whose owner lets go
/// once the work is queued, or at one of the callbacks that their tasks make.
struct Scene : HandTree {
    Scene(int levels, bool watchesBeforeGroups) {
        Ptr<TaskScheduler> scheduler = root;
        for (int level = 0; level < levels; ++level) {
            auto const group = groups.emplace_back(
                TaskGroup::TaskGroupIs(std::to_string(level), TaskPriority::normal, false, scheduler));
            auto const parent = parents.emplace_back(group->parentTask()->notifier());
            if (watchesBeforeGroups)
                group->parentTaskDel();
            watch(parent);
            if (watchesBeforeGroups)
                group->parentTaskIs(parent);
            scheduler = group;
        }
        for (char const* name : {"a", "b"})
            watch(tasks.emplace_back(Mortal::MortalIs(scheduler, TaskPriority::normal, name)));
        runsOfFirst = onTaskRun(tasks[0], [this] { ++runs; });
    }
    void watch(Ptr<Task> const& task) {
        watches.push_back(new OnAnything(task, [this](std::string_view) { releaseIfDue(); }));
    }
    void releaseIfDue() {
        if (releaseAt-- == 0)
            release(what);
    }
    void release(LetGo those) {
        if (those == LetGo::theRootFirst)
            root = nullptr;
        groups.clear();
        if (those != LetGo::allButTasks)
            runsOfFirst = nullptr, watches.clear(), tasks.clear();
        if (those != LetGo::allButParentTasks)
            parents.clear();
    }
    void play() {
        root->resetStats();
        for (std::size_t i = 0; i < 2 && i < tasks.size(); ++i)
            Ptr<Task>(tasks[i])->scheduleTask();
        releaseIfDue();
        while (root && root->schedulerHasRunnableTasks())
            root->handleSchedulerRun();
    }

    std::vector<Ptr<TaskGroup>> groups;
    std::vector<Ptr<TaskGroupParentTask>> parents;
    std::vector<Ptr<Task>> tasks;
    std::vector<Ptr<OnAnything>> watches;
    CallbackOn<Task> runsOfFirst;
    int runs = 0;
    int releaseAt = 0;
    LetGo what = LetGo::everything;
};

class GroupLife : public testing::TestWithParam<std::tuple<int, bool, LetGo>> {};

TEST_P(GroupLife, MayEndInsideAnyCallbackOfItsTasks) {
    auto const [levels, watchesBeforeGroups, what] = GetParam();
    int callbacks = 0;
    for (bool released = true; released; ++callbacks) {
        SCOPED_TRACE(callbacks);
        Scene scene(levels, watchesBeforeGroups);
        auto const name = scene.root->nameRecord();
        scene.releaseAt = callbacks, scene.what = what;
        scene.play();
        released = scene.releaseAt < 0;
        EXPECT_TRUE(what != LetGo::allButTasks || scene.runs == 1) << "tasks keep their groups going";
        scene.release(what);
        EXPECT_TRUE(what != LetGo::allButParentTasks || !scene.parents.back()->taskGroup())
            << "the others keep groups that they are in";
        scene.release(LetGo::everything);
        EXPECT_EQ(what == LetGo::theRootFirst, name->use_count() == 1) << "whether everything went";
        if (scene.root) {
            EXPECT_EQ(1u + scene.root->moxAuditErrors(1), scene.root->taskScheduler().size());
        }
    }
    EXPECT_GT(callbacks, 9 + 8 * levels) << "the scene is played to its end";
}

INSTANTIATE_TEST_SUITE_P(Groups, GroupLife,
                         testing::Combine(testing::Values(1, 3), testing::Bool(),
                                          testing::Values(LetGo::everything, LetGo::allButParentTasks,
                                                          LetGo::allButTasks, LetGo::theRootFirst)));

} // namespace
