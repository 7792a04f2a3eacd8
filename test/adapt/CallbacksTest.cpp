#include <adapt/Callbacks.h>

#include <group/TaskGroup.h>
#include <support/HandRoot.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

namespace {

using Kel::Function;
using Kel::Task;
using Mox::Ptr;
using testing::HasSubstr;

struct CallbacksTest : TestSupport::HandTreeTest {
    void runs(Ptr<Task> const& task) {
        task->scheduleTask();
        root->runUntilIdle();
    }
};

TEST_F(CallbacksTest, EachHearsItsOwnNotificationAndNoOther) {
    using Attach = Ptr<Task::NotifieeConst> (*)(Ptr<Task const> const&, Function);
    struct {
        Attach attach;
        void (*act)(Task&);
    } const cases[] = {
        {Kel::onTaskSuspendedForTest, [](Task& t) { t.taskSuspendedForTestIs(true); }},
        {Kel::onTaskBusy, [](Task& t) { t.taskBusyIs(true); }},
        {Kel::onTaskForceYieldInTest, [](Task& t) { t.taskForceYieldInTestIs(true); }},
        {Kel::onTaskWorkCount, [](Task& t) { t.taskWorkCountInc(1); }},
        {Kel::onTaskQuantumViolation500, [](Task& t) { t.taskQuantumViolation500Is(1); }},
        {Kel::onTaskQuantumViolation200, [](Task& t) { t.taskQuantumViolation200Is(1); }},
        {Kel::onTaskRun, [](Task& t) { t.taskRunInc(1); }},
        {Kel::onTaskCurrentlyRunning, [](Task& t) { t.taskCurrentlyRunningIs(true); }},
    };
    for (auto const& heard : cases) {
        auto const t = task();
        auto const* acting = cases;
        std::vector<std::ptrdiff_t> calls;
        auto const reactor = heard.attach(t, [&] { calls.push_back(acting - cases); });
        for (; acting != std::end(cases); ++acting)
            acting->act(*t);
        EXPECT_THAT(calls, testing::ElementsAre(&heard - cases));
    }
}

TEST_F(CallbacksTest, ThoseOfDerivedTasksAndOfTimersHearTheirs) {
    int calls = 0;
    auto const call = [&] { ++calls; };
    auto const made = timerTask();
    auto const initialised = Kel::onTimerTaskInitComplete(made, call);
    made->timerTaskInitCompleteIs(false);
    EXPECT_EQ(1, calls);

    auto const group = Kel::TaskGroup::TaskGroupIs("group", Kel::TaskPriority::low, false, root);
    auto const parent =
        Kel::TaskGroupParentTask::TaskGroupParentTaskIs(root, Kel::TaskPriority::low, "parent", nullptr);
    auto const joined = Kel::onTaskGroup(parent, call);
    parent->taskGroupIs(group.ptr());
    EXPECT_EQ(2, calls);

    auto const event = Kel::TimerEvent::TimerEventIs(Kel::EventLoop::EventLoopIs(timers.manager));
    auto const clocked = Kel::onClock(event, call);
    event->timeMinIs(1.0);
    auto const onWheel = Kel::onTime(root->timerWheel(), call);
    onWheel->timeMinIs(1.0);
    auto const onClock = Kel::onTime(timers.clock, call);
    onClock->timeMinIs(1.0);
    timePasses(0.99);
    EXPECT_EQ(2, calls);
    timePasses(0.01);
    EXPECT_EQ(5, calls);
}

TEST_F(CallbacksTest, WorksAsLongAsItIsHeldAndHoldsItsTask) {
    int calls = 0;
    Ptr<Task> t = task();
    auto reactor = Kel::onTaskRun(t, [&] { ++calls; });
    runs(t);
    auto const record = t->taskRecord();
    reactor = nullptr;
    runs(t);
    EXPECT_EQ(1, calls);

    reactor = Kel::onTaskRun(t, [] {});
    t = nullptr;
    EXPECT_TRUE(record->isAlive());
    reactor = nullptr;
    EXPECT_FALSE(record->isAlive());
}

TEST_F(CallbacksTest, FunctionThatLetsItsReactorGoEndsItsCallAndHearsNoMore) {
    Ptr<Task> t = task();
    auto const alive = std::make_shared<int>(0);
    Ptr<Task::NotifieeConst> reactor;
    reactor = Kel::onTaskRun(t, [&, count = alive] {
        if (++*count > 1)
            return;
        reactor = nullptr;
        t->taskRunFromTest(); // nobody is told
        t = nullptr;          // the last reference but the run pass's
        ++*count;
    });
    runs(t);
    EXPECT_EQ(2, *alive);
    EXPECT_EQ(1, alive.use_count());
}

TEST_F(CallbacksTest, WhatAFunctionThrowsIsTracedAndTheNextReactorIsTold) {
    TestSupport::TraceLog log({0}, "Mox");
    int calls = 0;
    auto const t = task();
    Ptr<Task::NotifieeConst> const throwing =
        Kel::onTaskRun(t, [] { throw std::runtime_error("out of paper"); });
    Ptr<Task::NotifieeConst> leaving;
    leaving = Kel::onTaskRun(t, [&] {
        leaving = nullptr;
        throw std::runtime_error("out of ink");
    });
    auto const next = Kel::onTaskRun(t, [&] { ++calls; });
    runs(t);
    EXPECT_EQ(1, calls);
    EXPECT_THAT(log.take(), testing::AllOf(HasSubstr("out of paper"), HasSubstr("out of ink")));
}

} // namespace
