#include <task/TimerTask.h>

#include <support/HandRoot.h>
#include <support/TaskReactors.h>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using Mox::Ptr;
using TestSupport::HandScheduler;
using TestSupport::OnRun;

using TaskLifeTest = TestSupport::HandTreeTest;

TEST_F(TaskLifeTest, MayBeReleasedWhileItWakesItsScheduler) {
    Ptr<HandScheduler> const below = new HandScheduler("below", root.ptr());
    for (bool const resumes : {false, true}) {
        auto t = Task::TaskIs(below, TaskPriority::low, "t");
        t->taskSuspendedForTestIs(resumes);
        below->atRequest = [&] { t = nullptr; };
        resumes ? t->taskSuspendedForTestIs(false) : t->scheduleTask();
        EXPECT_FALSE(t);
        below->atRequest = nullptr;
        below->handleSchedulerRun();
        EXPECT_EQ(0u, below->auditErrors(1));
    }
}

TEST_F(TaskLifeTest, DiesWholeWhileItsEventsGoOnShowingIt) {
    auto queued = task("queued", TaskPriority::low);
    auto armed = timerTask("armed");
    queued->scheduleTask();
    armed->scheduleTaskDelay(1.0);
    steady.advance(3ms);
    auto const record = queued->taskRecord();
    queued = nullptr, armed = nullptr;
    EXPECT_EQ(Task::taskMagicNumberDestroyed(), record->taskMagicNumber());
    EXPECT_EQ(0u, root->tasksPerPriority(TaskPriority::low));
    EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));
    EXPECT_EQ("schedule   L queued", root->takeHistory().front());
    EXPECT_EQ(0u, root->timerWheel()->armed());
    auto const* const stat = root->deadTaskStats("queued");
    ASSERT_TRUE(stat);
    EXPECT_EQ(0.003, stat->taskLastSchedulingLatency());
    EXPECT_EQ(0x00u, stat->taskStatus().value());
    EXPECT_EQ(0x01u, root->deadTaskStats("armed")->taskStatus().value()) << "whose timer is off";
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

/// A task of an application that owns its reactor.
struct Owner : Task {
    using Task::Task;
    Ptr<Task::Notifiee> own;
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

} // namespace
