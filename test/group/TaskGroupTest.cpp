#include <group/TaskGroup.h>

#include <adapt/Callbacks.h>
#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <boost/algorithm/string/join.hpp>
#include <gmock/gmock.h>

namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::HasSubstr;

/// A group of a root that is run by hand, with tasks that take their time and write their name down.
struct TaskGroupTest : HandTreeTest {
    static Ptr<TaskGroup> group(String8 const& name, Ptr<TaskScheduler> const& parent) {
        return TaskGroup::TaskGroupIs(name, TaskPriority::normal, false, parent);
    }
    Ptr<TaskGroupParentTask> newParent(String8 const& name) {
        return TaskGroupParentTask::TaskGroupParentTaskIs(root, TaskPriority::low, name, g.ptr());
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

    Ptr<TaskGroup> g = group("g", root);
    Ptr<TaskGroupParentTask> const parent = g->parentTask()->notifier();
    std::vector<Ptr<OnRun>> workers;
    std::string order;
};

TEST_F(TaskGroupTest, IsOneTaskWhoseRunsAndEventsEncloseThoseOfItsTasks) {
    work(g, "w");
    EXPECT_EQ(2u, root->runUntilIdle()) << "a run with work and an empty one";
    EXPECT_EQ(0.006, parent->taskTotalRunTime());
    EXPECT_EQ(golden("events"), boost::join(root->takeHistory(), "\n") + "\n");
}

TEST_F(TaskGroupTest, IsBoundedByItsQuantumAndTheRestWaits) {
    // The quanta of the outer and of the inner group, and the order in four passes of the root.
    std::tuple<Seconds, Seconds, std::string> const cases[] = {
        {0.001, 0.006, "i+ r+ i+ r+"},
        {0.001, 0.0061, "i+ i+ r+ i+ i+ r+"},
        {0.02, 0.01, "i+ i+ i+ i+ r+ i+ i+ i+ i+ r+"},
    };
    for (auto const& [outerQuantum, innerQuantum, expected] : cases) {
        workers.clear();
        root->runUntilIdle();
        auto const inner = group("inner", g);
        g->taskGroupQuantumIs(outerQuantum);
        inner->taskGroupQuantumIs(innerQuantum);
        work(inner, "i+");
        work(root, "r+");
        EXPECT_EQ(expected, run(4));
    }
    TraceLog trace({5});
    root->suspendedIs(true);
    parent->taskRunFromTest();
    EXPECT_THAT(trace.take(), HasSubstr("Suspended, none of its runnable tasks ran"));
    EXPECT_TRUE(parent->taskScheduled()) << "it goes on when the root does";
    root->suspendedIs(false);
    steady.perReadingIs(1us); // the shortest quantum is over when the first pass is reached
    g->taskGroupQuantumIs(1e-9);
    order.clear();
    parent->taskRunFromTest();
    EXPECT_THAT(trace.take(),
                HasSubstr("Quantum used before the first pass, none of its runnable tasks ran"));
    EXPECT_EQ("", order);
}

TEST_F(TaskGroupTest, DetachedInItsLoopRunsDryWhateverTheQuantum) {
    g->taskGroupQuantumIs(0.001);
    work(g, "a", [&] { EXPECT_EQ(parent.ptr(), g->parentTaskDel().ptr()); });
    work(g, "b", [&] { work(g, "c"); });
    EXPECT_EQ("a b c", run(1));
    EXPECT_FALSE(g->parentTaskDel() || g->schedulerHasRunnableTasks());
    parent->taskRunFromTest();
    parent->resetStats();
    EXPECT_FALSE(g->resetStatsTask()) << "nobody would run its reset";
    EXPECT_DEATH(work(g, "e"), HasSubstr("__null != parentTask_, source TaskGroup"));
}

TEST_F(TaskGroupTest, AttachedParentTaskLooksAfterWhatIsRunnable) {
    auto const second = newParent("second"), third = newParent("third");
    work(g, "a", [&] { g->parentTaskIs(third); }); // in the middle of the loop
    work(g, "b");
    g->parentTaskDel();
    g->parentTaskIs(second);
    EXPECT_EQ("", run(1)) << "the first was scheduled, and finds nothing to do";
    EXPECT_EQ("a", run(1));
    EXPECT_EQ("b", run(2));
    g->taskGroupQuantumIs(0.5);
    EXPECT_THAT((std::vector{parent->taskQuantum(), second->taskQuantum(), third->taskQuantum()}),
                ElementsAre(0.02, 0.02, 0.5));
}

TEST_F(TaskGroupTest, LoopsNestWhenATaskRunsItsOwnGroup) {
    work(g, "a", [&] { parent->taskRunFromTest(); });
    work(g, "b");
    EXPECT_EQ("a b", run(1));
    EXPECT_EQ(0.012, parent->taskRunTimeHighWaterMark());
    EXPECT_EQ(0u, root->moxAuditErrors(1) + g->moxAuditErrors(1));
}

TEST_F(TaskGroupTest, EveryParentTaskThatNamesItIsToldWhenItGoes) {
    auto other = group("other", root);
    auto const second = newParent("second"), moved = newParent("moved");
    newParent("gone");
    std::string told;
    Ptr<TaskGroupParentTask::NotifieeConst> const watches[] = {
        onTaskGroup(parent, [&] { told += "attached "; }), onTaskGroup(second, [&] { told += "second "; }),
        onTaskGroup(moved, [&] { told += "moved "; })};
    moved->hasNotificationActiveIs(false);
    moved->taskGroupIs(nullptr);
    moved->hasNotificationActiveIs(true);
    moved->taskGroupIs(other.ptr());
    g = nullptr;
    EXPECT_EQ("moved attached second ", told);
    EXPECT_FALSE(parent->taskGroup() || second->taskGroup());
    EXPECT_EQ(other.ptr(), moved->taskGroup());
    parent->scheduleTask();
    EXPECT_EQ(1u, root->runUntilIdle()) << "a task without work";
    other->parentTaskDel();
    for (int asked = 0; asked < 2; ++asked)
        EXPECT_EQ("the group has no parent task", other->problemOfRequest());
    other = nullptr;
    EXPECT_FALSE(moved->taskGroup());
}

// Each level's reset-stats task is of normal priority, which an enforcing group refuses from anybody else.
TEST_F(TaskGroupTest, ResettingTheRootResetsEveryLevel) {
    auto const outer = TaskGroup::TaskGroupIs("outer", TaskPriority::high, true, root);
    auto const inner = TaskGroup::TaskGroupIs("inner", TaskPriority::high, true, outer);
    auto const t = Task::TaskIs(inner, TaskPriority::high, "t");
    auto const parentTask = inner->parentTask()->notifier();
    t->taskRunIs(1), parentTask->taskWorkCountIs(1);
    root->resetStats();
    root->runUntilIdle();
    EXPECT_EQ(0u, t->taskRun() + parentTask->taskWorkCount());
    for (TaskPriority const other : {TaskPriority::absolute, TaskPriority::normal})
        EXPECT_DEATH(Task::TaskIs(inner, other, "refused"),
                     HasSubstr("task->taskPriority() == taskGroupPriority(), source TaskGroup"));
}

/// What the owner of a scene lets go of.
enum class LetGo { allFromTheRootOn, allButParentTasks, allButTasks };

/// A chain of groups with two tasks in the innermost and a reset of statistics under way, whose owner lets go
/// once the work is queued, or at one of the callbacks that their tasks make, before or after the groups hear
/// of them.
struct Scene : HandTree {
    Scene(int levels, LetGo those, int callback) : what(those), releaseAt(callback) {
        Ptr<TaskScheduler> scheduler = root;
        for (int level = 0; level < levels; ++level) {
            auto const group = groups.emplace_back(
                TaskGroup::TaskGroupIs(std::to_string(level), TaskPriority::normal, false, scheduler));
            auto const parent = parents.emplace_back(group->parentTaskDel());
            watch(parent);
            group->parentTaskIs(parent);
            watch(parent);
            scheduler = group;
        }
        for (char const* name : {"a", "b"})
            watch(tasks.emplace_back(Mortal::MortalIs(scheduler, TaskPriority::normal, name)));
    }
    void watch(Ptr<Task> const& task) {
        watches.push_back(new OnAnything(task, [this](std::string_view) { releaseIfDue(); }));
    }
    void releaseIfDue() {
        if (releaseAt-- == 0)
            release(what);
    }
    void release(LetGo those) {
        if (those == LetGo::allFromTheRootOn)
            root = nullptr;
        groups.clear();
        if (those != LetGo::allButTasks)
            watches.clear(), tasks.clear();
        if (those != LetGo::allButParentTasks)
            parents.clear();
    }
    /// Plays it to its end.
    bool isReleasedAtACallback() {
        auto const name = root->nameRecord();
        root->resetStats();
        for (std::size_t i = 0; i < tasks.size(); ++i)
            Ptr<Task>(tasks[i])->scheduleTask();
        releaseIfDue();
        while (root && root->schedulerHasRunnableTasks())
            root->handleSchedulerRun();
        bool const released = releaseAt < 0;
        EXPECT_TRUE(tasks.empty() || !tasks[0]->taskScheduled()) << "tasks keep groups going";
        release(what);
        EXPECT_TRUE(what != LetGo::allButParentTasks || !parents.back()->taskGroup())
            << "the others keep groups that they are in";
        EXPECT_EQ(0u, root ? root->moxAuditErrors(1) : 0u);
        release(LetGo::allFromTheRootOn);
        EXPECT_EQ(1, name->use_count()) << "everything went";
        return released;
    }

    LetGo const what;
    int releaseAt;
    std::vector<Ptr<TaskGroup>> groups;
    std::vector<Ptr<TaskGroupParentTask>> parents;
    std::vector<Ptr<Task>> tasks;
    std::vector<Ptr<OnAnything>> watches;
};

TEST(GroupLife, MayEndInsideAnyCallbackOfItsTasks) {
    for (int const levels : {1, 3})
        for (LetGo const what : {LetGo::allFromTheRootOn, LetGo::allButParentTasks, LetGo::allButTasks}) {
            int callbacks = 0;
            for (bool released = true; released; ++callbacks) {
                SCOPED_TRACE(testing::Message()
                             << levels << ' ' << static_cast<int>(what) << ' ' << callbacks);
                released = Scene(levels, what, callbacks).isReleasedAtACallback();
            }
            EXPECT_GT(callbacks, 9 + 8 * levels) << "the scene is played to its end";
        }
}

} // namespace
