#include <task/TimerTask.h>

#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <limits>
#include <thread>

namespace {

using namespace TestSupport;
using testing::HasSubstr;

using TaskTest = HandTreeTest;

// 200 draws a step are expected, with a deviation of 14; the bounds are 7 of them.
TEST_F(TaskTest, JitterIsUniformOverAllItsSteps) {
    auto const t = timerTask();
    for (Seconds const span : {25.5, -2.0}) { // of 101 steps
        std::array<int, 101> counts{};
        for (int draw = 0; draw < 20200; ++draw) {
            span > 0 ? t->scheduleTaskJitterUp(10, 255) : t->scheduleTaskJitterDown(10, 20);
            double const step = (t->timer()->timeMin() - now() - 10.0) / span * 100;
            ASSERT_NEAR(std::round(step), step, 1e-6);
            counts.at(static_cast<std::size_t>(std::round(step))) += 1;
        }
        EXPECT_THAT(counts, testing::Each(testing::AllOf(testing::Gt(100), testing::Lt(300))));
    }
    for (int draw = 0; draw < 50'000; ++draw) {
        Seconds const delay = (draw % 10'000 + 10) / 1000.0;
        t->scheduleTaskJitterDown(delay, 100);
        ASSERT_LE(t->currentExpirationTime(), now() + delay) << "by rounding";
    }
}

TEST_F(TaskTest, TracesWhatItDoes) {
    root->schedulerHasRunnableTasksIs(true); // it wakes no more, which it would trace
    TraceLog traces({1, 4, 5, 7, 8, 9});
    auto t = timerTask("a %s");
    Ptr<OnRun> reactor = new OnRun(t, [&] { steady.advance(60ms); });
    t->scheduleTask();
    root->handleSchedulerRun();
    t->taskSuspendedForTestIs(true);
    t->scheduleTaskDelay(0.004);
    t->scheduleTaskLowestDelay(5.5);
    t->stopTimerTask();
    t->scheduleTaskJitterUp(10, 0), t->scheduleTaskJitterDown(8, 0);
    t->taskSuspendedForTestIs(false);
    t->scheduleTask(), t->scheduleTaskLowestDelay(1), t->unscheduleTask(), t->stopTimerTask();
    t->taskForceYieldInTestIs(true), t->taskForceYieldInTestIs(false);
    root->clearHistory(), root->handleTrimHistoryTaskRun();
    root->suspendedIs(true), root->handleSchedulerRun(), root->suspendedIs(false);
    root->schedulerHasRunnableTasksIs(false), root->schedulerHasRunnableTasksIs(true);
    reactor = nullptr, t = nullptr;
    EXPECT_EQ(golden("traces"), traces.take());
}

TEST_F(TaskTest, MisuseEndsTheProcess) {
    constexpr Seconds nan = std::numeric_limits<Seconds>::quiet_NaN();
    auto const t = timerTask();
    auto const bare = TaskSchedulerRoot::TaskSchedulerRootIs("bare");
    auto const base = TaskScheduler::TaskSchedulerIs("base", root.ptr());
    auto const rootless = TaskScheduler::TaskSchedulerIs("rootless", nullptr);
    auto only = task("only");
    Ptr<OnRun> const destroys = new OnRun(t, [&] { t->taskRecord()->destroyed(); });
    Ptr<OnRun> letsGo = new OnRun(only, [&] { only = nullptr, letsGo = nullptr; });
    TaskTimeStamp end, late = SteadyClock::now() + Nanoseconds(1);
    std::pair<std::function<void()>, char const*> const cases[] = {
        {[&] { Task::TaskIs(nullptr, TaskPriority::normal, "t"); },
         "__null != taskScheduler_, source Task, function handleInitialized"},
        {[&] { Task::TaskIs(rootless, TaskPriority::normal, "t"); }, "__null != root_"},
        {[&] { TimerTask::TimerTaskIs(bare, TaskPriority::normal, "t"); }, "__null != timerWheel"},
        {[&] { bare->requestSchedulerRun(); }, "Must be implemented by derived class"},
        {[&] { base->requestSchedulerRun(); }, "Must be implemented by derived class"},
        {[&] { base->printHistory(StringDumpContext::StringDumpContextIs(), 0); },
         "Must override in derived"},
        {[&] { task("t", TaskPriority::oneBeyondLast); },
         "priority.isValid(), source TaskScheduler, function taskRegister"},
        {[&] { task("t", TaskPriority::PriorityEnumInstance(8)); }, "priority.isValid()"},
        {[&] { root->taskRegister(t.ptr()); }, "__null == tasksRegistered( task->taskKey() )"},
        {[&] { t->scheduleTask(), t->taskDoRun({}, &end); }, "!taskRunQueueLink_.isLinked()"},
        {[&] { t->taskRunFromTest(); },
         "taskMagicNumber_ == taskMagicNumberConstructed(), source Task, function taskDoRun"},
        {[&] { only->taskDoRun({}, &end); }, "taskMagicNumberConstructed(), source Task, function taskDoRun"},
        {[&] { t->taskLastRunTimeStampIs(late), t->taskShouldYield(); }, "now >= taskLastRunTimeStamp_"},
        {[&] { t->taskQuantumIs(9e-10); }, "taskQuantumInternal_ > TaskTimeDuration( 0 )"},
        {[&] { t->taskQuantumIs(1.000000002); }, "taskQuantumInternal_ <= boost::chrono::seconds( 1 )"},
        {[&] { t->scheduleTaskDelay(nan); }, "!std::isnan( delayIntoFuture ), source Task"},
        {[&] { t->scheduleTaskLowestDelay(endOfTime); }, "delayIntoFuture != Mox::endOfTime"},
        {[&] { t->scheduleTaskJitterDown(10.0, 101); }, "maxJitterPercentage <= 100"},
        {[&] { t->scheduleTaskJitterDown(-1.0, 10); }, "offset <= delayIntoFuture"},
    };
    for (auto const& [act, text] : cases)
        EXPECT_DEATH(act(), HasSubstr(text));
}

TEST_F(TaskTest, ForeignThreadEndsTheProcess) {
    using T = Ptr<TimerTask>&;
    void (*const cases[])(T) = {
        [](T t) { t->scheduleTask(); },
        [](T t) { t->scheduleTaskDelayedPrivate(std::nan(""), true); }, // which comes after this
        [](T t) { t->scheduleTaskLowestDelay(endOfTime); },
        [](T t) { t->stopTimerTask(); },
        [](T t) { t->taskStatus(); },
        [](T t) { t->currentExpirationTime(); },
        [](T t) { Task::TaskIs(t->taskScheduler(), TaskPriority::low, "another"); },
        [](T t) { t = nullptr; },
    };
    // A death test runs in a forked child, where a tree of the parent may be used from anywhere: make one
    // there.
    auto const inAnotherThread = [&](auto act) {
        root = HandRoot::HandRootIs();
        auto t = timerTask();
        std::thread([&] { act(t); }).join();
    };
    for (auto const act : cases)
        EXPECT_DEATH(inAnotherThread(act),
                     HasSubstr("schedulerThread_.isCurrent() || !schedulerPid_.isCurrent(), source"));
    auto const inherited = timerTask();
    EXPECT_EXIT((std::thread([&] { inherited->scheduleTask(); }).join(), std::_Exit(0)),
                testing::ExitedWithCode(0), "");
}

TEST_F(TaskTest, MayBeReleasedWhileItWakesItsScheduler) {
    Ptr<HandScheduler> const below = new HandScheduler("below", root.ptr());
    for (bool const resumes : {false, true}) {
        auto t = Mortal::MortalIs(below, TaskPriority::low, "t");
        t->taskSuspendedForTestIs(resumes);
        below->atRequest = [&] { t = nullptr; };
        resumes ? t->taskSuspendedForTestIs(false) : t->scheduleTask();
        EXPECT_FALSE(t);
        below->atRequest = nullptr;
        below->handleSchedulerRun();
        EXPECT_EQ(0u, below->auditErrors(1));
    }
}

TEST_F(TaskTest, ReactorThatItsNotifierOwnsLetsItGo) {
    struct Owner : Task {
        using Task::Task;
        Ptr<Task::Notifiee> own = new Task::Notifiee;
    };
    Ptr<Owner> owner = new Owner(root, TaskPriority::low, "owner");
    Task::Notifiee* const own = owner->own.ptr();
    own->notifierIs(owner);
    owner = nullptr;
    own->notifierIs(nullptr); // destroys the task, and with it the reactor
    EXPECT_EQ(1u, root->deadTasksPerPriority(TaskPriority::low));
}

} // namespace
