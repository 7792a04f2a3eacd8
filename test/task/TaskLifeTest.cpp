#include <task/TimerTask.h>

#include <support/HandRoot.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using Kel::TimerTask;
using Mox::Ptr;
using testing::HasSubstr;
using TestSupport::HandRoot;
using TestSupport::HandScheduler;
using TestSupport::HandTree;
using TestSupport::OnAnything;
using TestSupport::OnRun;

using TaskLifeTest = TestSupport::HandTreeTest;

/// What leads to a callback, and what makes it.
struct Release {
    using Act = void (*)(HandTree&, Task&);
    char const* callback;
    Act before;
    Act act;
};

void nothing(HandTree&, Task&) {}
void schedule(HandTree&, Task& t) { t.scheduleTask(); }
void unschedule(HandTree&, Task& t) { t.unscheduleTask(); }
void suspend(HandTree&, Task& t) { t.taskSuspendedForTestIs(true); }
void resume(HandTree&, Task& t) { t.taskSuspendedForTestIs(false); }
void force(HandTree&, Task& t) { t.taskForceYieldInTestIs(true); }
void unforce(HandTree&, Task& t) { t.taskForceYieldInTestIs(false); }
void pass(HandTree& tree, Task&) { tree.root->handleSchedulerRun(); }
void runFromTest(HandTree&, Task& t) { t.taskRunFromTest(); }

Release const releases[] = {
    {"onTaskBusy", nothing, schedule},
    {"onTaskBusy", schedule, unschedule},
    {"onTaskBusy", schedule, pass},
    {"onTaskBusy", schedule, runFromTest},
    {"onTaskBusy", schedule, suspend},
    {"onTaskBusy", suspend, resume},
    {"onTaskSuspendedForTest", nothing, suspend},
    {"onTaskSuspendedForTest", suspend, resume},
    {"onTaskForceYieldInTest", nothing, force},
    {"onTaskForceYieldInTest", force, unforce},
    {"onTaskWorkCount", nothing, [](HandTree&, Task& t) { t.taskWorkCountInc(1); }},
    {"onTaskQuantumViolation500", nothing, [](HandTree&, Task& t) { t.taskQuantumViolation500Is(1); }},
    {"onTaskQuantumViolation200", nothing, [](HandTree&, Task& t) { t.taskQuantumViolation200Is(1); }},
    {"onTaskRun", schedule, pass},
    {"onTaskRun", nothing, runFromTest},
    {"onTaskCurrentlyRunning", schedule, pass},
};

TimerTask& timer(Task& t) { return static_cast<TimerTask&>(t); }
void delay(HandTree&, Task& t) { timer(t).scheduleTaskDelay(1.0); }
void expire(HandTree& tree, Task&) { tree.timePasses(1.0); }

Release const timerReleases[] = {
    {"onTaskBusy", nothing, delay},
    {"onTaskBusy", nothing, [](HandTree&, Task& t) { timer(t).scheduleTaskDelay(0.0); }},
    {"onTaskBusy", nothing, [](HandTree&, Task& t) { timer(t).scheduleTaskLowestDelay(1.0); }},
    {"onTaskBusy", nothing, [](HandTree&, Task& t) { timer(t).scheduleTaskJitterUp(1.0, 10); }},
    {"onTaskBusy", nothing, [](HandTree&, Task& t) { timer(t).scheduleTaskJitterDown(1.0, 10); }},
    {"onTaskBusy", delay, [](HandTree&, Task& t) { timer(t).stopTimerTask(); }},
    {"onTaskBusy", delay, runFromTest},
    {"onTaskBusy", [](HandTree& r, Task& t) { suspend(r, t), delay(r, t); }, expire},
    {"onTaskRun", [](HandTree& r, Task& t) { delay(r, t), expire(r, t); }, pass},
};

/// Lets the task and its reactor go inside the callback, with a second reactor behind it.
void releaseIn(HandTree& tree, Ptr<Task> task, Release const& r) {
    SCOPED_TRACE(r.callback + std::string(", case ") + std::to_string(&r - releases));
    auto const record = task->taskRecord();
    bool armed = false;
    Ptr<OnAnything> second;
    Ptr<OnAnything> first = new OnAnything(task, [&](std::string_view callback) {
        if (!armed || callback != r.callback)
            return;
        task = nullptr;
        second = nullptr;
        first = nullptr;
    });
    second = new OnAnything(task, [&](std::string_view callback) {
        EXPECT_FALSE(armed && callback == r.callback) << "a reactor that is gone was told";
    });
    r.before(tree, *task);
    armed = true;
    r.act(tree, *task);
    EXPECT_FALSE(first) << "the callback was not made";
    EXPECT_FALSE(record->isAlive());
    EXPECT_TRUE(tree.root->tasksRegistered().empty());
    EXPECT_EQ(0u, tree.root->auditErrors(1));
    tree.root->runUntilIdle();
}

TEST_F(TaskLifeTest, MayBeReleasedInsideAnyCallback) {
    for (Release const& r : releases) {
        releaseIn(*this, task(), r);
        releaseIn(*this, timerTask(), r);
    }
    for (Release const& r : timerReleases)
        releaseIn(*this, timerTask(), r);
}

TEST_F(TaskLifeTest, MayBeReleasedWhileItWakesItsScheduler) {
    Ptr<HandScheduler> const below = new HandScheduler("below", root.ptr());
    for (auto const wake : {schedule, resume}) {
        auto t = Task::TaskIs(below, TaskPriority::low, "t");
        suspend(*this, *t);
        if (wake == schedule)
            t->taskSuspendedForTestIs(false), t->unscheduleTask();
        below->handleSchedulerRun();
        below->atRequest = [&] { t = nullptr; };
        wake(*this, *t);
        EXPECT_FALSE(t);
        below->atRequest = nullptr;
        below->handleSchedulerRun();
        EXPECT_EQ(0u, below->auditErrors(1));
    }
}

TEST_F(TaskLifeTest, ReleasedByANeighboursRunNeverRuns) {
    auto const a = task("a");
    auto b = task("b");
    Ptr<OnRun> const ofA = new OnRun(a, [&] { b = nullptr; });
    for (auto const& t : {a, b})
        t->scheduleTask();
    EXPECT_EQ(1u, root->runUntilIdle());
    EXPECT_EQ(2u, root->runTaskCount(TaskPriority::normal)) << "one that dies while scheduled counts as run";
    EXPECT_EQ(0u, root->runnableTaskCount(TaskPriority::normal));
    EXPECT_EQ(0u, root->auditErrors(1));
}

TEST_F(TaskLifeTest, DiesWholeWhileItsEventsGoOnShowingIt) {
    auto t = task("gone", TaskPriority::low);
    t->scheduleTask();
    steady.advance(3ms);
    auto const record = t->taskRecord();
    t = nullptr;
    EXPECT_EQ(Task::taskMagicNumberDestroyed(), record->taskMagicNumber());
    EXPECT_EQ(0u, root->tasksPerPriority(TaskPriority::low));
    EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));
    auto const* const dead = root->deadTaskStats("gone");
    ASSERT_TRUE(dead);
    EXPECT_EQ(0u, dead->taskStatus().value());
    EXPECT_EQ(0.003, dead->taskLastSchedulingLatency());
    EXPECT_EQ("schedule   L gone", root->takeHistory().front());
}

TEST_F(TaskLifeTest, AttachedReactorIsAnOwner) {
    auto t = task();
    auto const record = t->taskRecord();
    Ptr<OnRun> reactor = new OnRun(t, [] {});
    t = nullptr;
    EXPECT_TRUE(record->isAlive());
    reactor = nullptr;
    EXPECT_FALSE(record->isAlive());
}

/// Throws in its run, and keeps what reached its handler.
struct Thrower : Task::Notifiee {
    explicit Thrower(Ptr<Task> const& task) { notifierIs(task); }
    void onTaskRun() override { throw std::runtime_error("no"); }
    void onException(std::exception_ptr e) noexcept override { thrown = e; }
    std::exception_ptr thrown;
};

TEST_F(TaskLifeTest, ReactorThatThrowsLosesNothing) {
    auto const t = task();
    int called = 0;
    Ptr<Thrower> const thrower = new Thrower(t);
    Ptr<OnRun> const other = new OnRun(t, [&] { ++called, steady.advance(1ms), t->scheduleTask(); });
    t->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_THROW(std::rethrow_exception(thrower->thrown), std::runtime_error);
    EXPECT_EQ(1, called);
    EXPECT_EQ(0.001, t->taskTotalRunTime());
    EXPECT_FALSE(t->taskCurrentlyRunning());
    EXPECT_TRUE(t->taskScheduled());
}

TEST_F(TaskLifeTest, DerivedClassTellsNobodyBeforeItIsSwitchedOn) {
    struct Derived : Task {
        using Task::Task;
    };
    Ptr<Derived> const t = new Derived(root, TaskPriority::normal, "t");
    int runs = 0;
    Ptr<OnRun> const reactor = new OnRun(t, [&] { ++runs; });
    t->taskRunFromTest();
    t->hasNotificationActiveIs(true);
    t->taskRunFromTest();
    EXPECT_EQ(1, runs);
    EXPECT_EQ(2u, t->taskRun());
}

TEST_F(TaskLifeTest, MisuseEndsTheProcess) {
    auto const t = task();
    auto const own = root->resetStatsTaskIs(root, TaskPriority::normal, "own");
    root->resetStatsTaskDel();
    Ptr<OnRun> const destroys = new OnRun(t, [&] { t->taskRecord()->destroyed(); });
    Kel::TaskTimeStamp end;
    struct {
        std::function<void()> act;
        char const* text;
    } const cases[] = {
        {[&] { Task::TaskIs(nullptr, TaskPriority::normal, "t"); },
         "__null != taskScheduler_, source Task, function"},
        {[&] { task("t", TaskPriority::oneBeyondLast); },
         "priority.isValid(), source TaskScheduler, function taskRegister"},
        {[&] { task("t", TaskPriority::PriorityEnumInstance(77u)); }, "priority.isValid(), source"},
        {[&] { root->runTaskCount(TaskPriority::oneBeyondLast); }, "priority.isValid(), source"},
        {[&] { root->runnableTaskCount(TaskPriority::oneBeyondLast); }, "priority.isValid(), source"},
        {[&] { root->taskRegister(t.ptr()); },
         "__null == tasksRegistered( task->taskKey() ), source TaskScheduler"},
        {[&] { root->taskUnregister(own.ptr()); }, "__null != tasksRegistered( task->taskKey() ), source"},
        {[&] { own->scheduleTask(); }, "__null != taskScheduler_, source Task"},
        {[&] { t->scheduleTask(), t->taskDoRun({}, &end); },
         "!taskRunQueueLink_.isLinked(), source Task, function taskDoRun"},
        {[&] { t->taskRunFromTest(); },
         "taskMagicNumber_ == taskMagicNumberConstructed(), source Task, function taskDoRun"},
        {[&] { root->tasksPerPriorityIs(TaskPriority::normal, 0), root->taskUnregister(t.ptr()); },
         "0 < tasksPerPriority( priority ), source TaskScheduler, function taskUnregister"},
    };
    for (auto const& c : cases)
        EXPECT_DEATH(c.act(), HasSubstr(c.text));
}

TEST_F(TaskLifeTest, ForeignThreadEndsTheProcess) {
    using T = Ptr<TimerTask>&;
    using Act = void (*)(T);
    Act const cases[] = {
        [](T t) { t->scheduleTask(); },
        [](T t) { t->unscheduleTask(); },
        [](T t) { t->taskScheduled(); },
        [](T t) { t->taskRunFromTest(); },
        [](T t) { t->scheduleTaskDelay(1.0); },
        [](T t) { t->scheduleTaskDelay(Mox::endOfTime); },
        [](T t) { t->scheduleTaskLowestDelay(1.0); },
        [](T t) { t->scheduleTaskJitterUp(1.0, 1); },
        [](T t) { t->scheduleTaskJitterDown(1.0, 1); },
        [](T t) { t->stopTimerTask(); },
        [](T t) { t->currentExpirationTime(); },
        [](T t) { Task::TaskIs(t->taskScheduler(), TaskPriority::low, "another"); },
        [](T t) { t = nullptr; },
    };
    // A death test runs in a forked child, where a tree of the parent may be used from anywhere: make one
    // there.
    auto const inAnotherThread = [&](Act act) {
        root = HandRoot::HandRootIs();
        auto t = timerTask();
        std::thread([&] { act(t); }).join();
    };
    for (Act const act : cases)
        EXPECT_DEATH(inAnotherThread(act),
                     HasSubstr("schedulerThread_.isCurrent() || !schedulerPid_.isCurrent(), source"));
}

/// A task of an application that owns its reactor, and one that misbehaves when it goes.
struct Owner : Task {
    using Task::Task;
    Ptr<Task::Notifiee> own;
};
struct LateScheduler : Task {
    using Task::Task;
    ~LateScheduler() override { scheduleTask(); }
};

TEST_F(TaskLifeTest, ReactorThatItsNotifierOwnsLetsItGo) {
    Ptr<Owner> owner = new Owner(root, TaskPriority::low, "owner");
    Owner& task = *owner;
    task.own = new Task::Notifiee;
    task.own->notifierIs(owner);
    owner = nullptr;
    task.own->notifierIs(nullptr); // destroys the task, and with it the reactor
    EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));
}

TEST_F(TaskLifeTest, CannotBeScheduledByItsOwnDestructor) {
    EXPECT_DEATH(Ptr<Task>(new LateScheduler(root, TaskPriority::low, "late")),
                 HasSubstr("taskMagicNumber_ == taskMagicNumberConstructed()"));
}

} // namespace
