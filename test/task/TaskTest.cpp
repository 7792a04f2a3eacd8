#include <task/Task.h>

#include <support/HandRoot.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

#include <cmath>
#include <iomanip>
#include <limits>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using Mox::Ptr;
using TestSupport::HandTree;
using TestSupport::ManualClock;
using TestSupport::OnAnything;
using TestSupport::OnRun;

struct TaskTest : testing::Test, HandTree {
    /// One run of the task that takes so long.
    void runFor(Ptr<Task> const& task, ManualClock::Duration duration) {
        Ptr<OnRun> const reactor = new OnRun(task, [&] { steady.advance(duration); });
        task->scheduleTask();
        root->handleSchedulerRun();
    }
};

TEST_F(TaskTest, RecordsItsLifeInOrder) {
    auto const t = task();
    Ptr<OnRun> const reactor = new OnRun(t, [&] { steady.advance(2ms); });
    auto const start = steady.now();
    std::function<void()> const steps[] = {
        [&] { t->scheduleTask(), t->scheduleTask(); },
        [&] { t->unscheduleTask(); },
        [&] { t->unscheduleTask(); },
        [&] { t->scheduleTask(); },
        [&] { root->handleSchedulerRun(); },
        [&] { t->taskSuspendedForTestIs(true); },
        [&] { t->scheduleTask(); },
        [&] { t->taskSuspendedForTestIs(false); },
        [&] { t->taskSuspendedForTestIs(true); },
        [&] { t->taskSuspendedForTestIs(true); },
        [&] { t->taskForceYieldInTestIs(true); },
        [&] { t->taskForceYieldInTestIs(false); },
        [&] { root->handleSchedulerRun(); },
    };
    for (auto const& step : steps) {
        step();
        steady.advance(1ms);
    }
    using testing::ElementsAre;
    EXPECT_THAT(root->takeHistorySince(start),
                ElementsAre("0 schedule   N t", "0 schedulerRunnable", "0 schedulerRunnable",
                            "0 busy       N t",                                            //
                            "1 unschedule N t", "1 idle       N t",                        //
                            "3 schedule   N t", "3 busy       N t",                        //
                            "4 run start  N t", "6 run end    N t", "6 idle       N t",    //
                            "7 suspendOn  N t",                                            //
                            "8 scheduleSusN t",                                            //
                            "9 suspendOff N t", "9 schedule   N t", "9 busy       N t",    //
                            "10 suspendOn  N t", "10 unschedule N t", "10 idle       N t", //
                            "12 frcYieldOn N t", "13 frcYieldOffN t",                      //
                            "14 schedulerIdle", "14 schedulerIdle"));
}

TEST_F(TaskTest, IsBusyFromScheduleToTheEndOfItsRun) {
    struct {
        char const* inItsRun;
        void (*act)(Task&);
        std::vector<bool> changes;
    } const cases[] = {
        {"does nothing", [](Task&) {}, {true, false}},
        {"schedules itself", [](Task& t) { t.scheduleTask(); }, {true}},
        {"unschedules itself", [](Task& t) { t.unscheduleTask(); }, {true, false}},
        {"schedules and unschedules itself",
         [](Task& t) { t.scheduleTask(), t.unscheduleTask(); },
         {true, false}},
        {"is suspended", [](Task& t) { t.taskSuspendedForTestIs(true); }, {true, false}},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.inItsRun);
        auto const t = task();
        std::vector<bool> changes;
        Ptr<OnAnything> const reactor = new OnAnything(t, [&](std::string_view what) {
            if (what == "onTaskBusy")
                changes.push_back(t->taskBusy());
            if (what != "onTaskRun")
                return;
            EXPECT_EQ(0x08u, t->taskStatus().value());
            c.act(*t);
            EXPECT_TRUE(t->taskBusy());
        });
        t->scheduleTask();
        root->handleSchedulerRun();
        EXPECT_EQ(c.changes, changes);
        EXPECT_EQ(t->taskScheduled(), t->taskBusy());
    }
}

TEST_F(TaskTest, MeasuresItsLatencyWheneverItLeavesTheQueue) {
    auto const t = task();
    struct {
        ManualClock::Duration wait;
        std::function<void()> leave;
        Mox::Seconds greatest;
    } const cases[] = {
        {3ms, [&] { root->handleSchedulerRun(); }, 0.003},
        {5ms, [&] { t->unscheduleTask(); }, 0.005},
        {4ms, [&] { t->taskSuspendedForTestIs(true), t->taskSuspendedForTestIs(false); }, 0.005},
        {7ms, [&] { t->taskRunFromTest(); }, 0.007},
        {-8ms, [&] { root->handleSchedulerRun(); }, 0.007}, // the clock went back
    };
    for (auto const& c : cases) {
        t->unscheduleTask();
        t->scheduleTask();
        steady.advance(c.wait);
        t->scheduleTask(); // it waits already: nothing begins anew
        c.leave();
        EXPECT_EQ(std::chrono::duration<double>(c.wait).count(), t->taskLastSchedulingLatency());
        EXPECT_EQ(c.greatest, t->taskSchedulingLatencyHighWaterMark());
    }
}

TEST_F(TaskTest, CountsARunOfTwoQuantaOrOfFiveAsAViolation) {
    struct {
        ManualClock::Duration run;
        Mox::U32 violations200, violations500;
        Mox::Seconds total, longest;
    } const cases[] = {
        {2ms - 1ns, 0, 0, 0.001999999, 0.001999999},
        {2ms, 1, 0, 0.003999999, 0.002},
        {5ms - 1ns, 2, 0, 0.008999998, 0.004999999},
        {5ms, 2, 1, 0.013999998, 0.005},
        {1ms, 2, 1, 0.014999998, 0.005},
    };
    auto const t = task();
    t->taskQuantumIs(0.001);
    for (auto const& c : cases) {
        SCOPED_TRACE(c.run.count());
        runFor(t, c.run);
        EXPECT_EQ(c.violations200, t->taskQuantumViolation200());
        EXPECT_EQ(c.violations500, t->taskQuantumViolation500());
        EXPECT_DOUBLE_EQ(c.total, t->taskTotalRunTime());
        EXPECT_EQ(c.longest, t->taskRunTimeHighWaterMark());
    }
    Ptr<OnRun> const longer = new OnRun(t, [&] { t->taskQuantumIs(0.5); }); // it counts as it is at the end
    runFor(t, 5ms);
    EXPECT_EQ(1u, t->taskQuantumViolation500());
}

TEST_F(TaskTest, UnderForcedYieldEveryRunIsAViolationAndTheDefaultQuantumComesBack) {
    auto const t = task();
    t->taskQuantumIs(0.5);
    t->taskForceYieldInTestIs(true);
    EXPECT_TRUE(t->taskShouldYield());
    runFor(t, 0ns);
    EXPECT_EQ(1u, t->taskQuantumViolation500());
    EXPECT_EQ(0u, t->taskQuantumViolation200());
    t->taskForceYieldInTestIs(false);
    EXPECT_EQ(0.02, t->taskQuantum());
}

TEST_F(TaskTest, ShouldYieldAtExactlyOneQuantum) {
    auto const t = task();
    Ptr<OnRun> const reactor = new OnRun(t, [&] {
        steady.advance(20ms - 1ns);
        EXPECT_FALSE(t->taskShouldYield());
        steady.advance(1ns);
        EXPECT_TRUE(t->taskShouldYield());
    });
    t->scheduleTask();
    root->handleSchedulerRun();
    steady.advance(-21ms);
    EXPECT_DEATH(t->taskShouldYield(), "now >= taskLastRunTimeStamp_, source Task, function taskShouldYield");
}

TEST_F(TaskTest, TakesQuantaThatAreAtLeastANanosecondAndAtMostASecondOnceTruncated) {
    auto const t = task();
    TestSupport::TraceLog traces({4, 9});
    for (Mox::Seconds const quantum : {1e-9, 1.0, 1.0000000001, 0.02, 0.0200000001}) {
        t->taskQuantumIs(quantum);
        EXPECT_EQ(std::trunc(quantum * 1e9) / 1e9, t->taskQuantum());
    }
    EXPECT_EQ(R"(4 Task taskQuantumIs: Set quantum root:'normal':t@ to 1 nanosecond
4 Task taskQuantumIs: Set quantum root:'normal':t@ to 1000000000 nanoseconds
4 Task taskQuantumIs: Set quantum root:'normal':t@ to 1000000000 nanoseconds
9 Task taskQuantumIs: Set quantum root:'normal':t@ to 20000000 nanoseconds
4 Task taskQuantumIs: Set quantum root:'normal':t@ to 20000000 nanoseconds
)",
              traces.take());
    struct {
        Mox::Seconds quantum;
        char const* text;
    } const rejected[] = {
        {0.0, "taskQuantumInternal_ > TaskTimeDuration( 0 ), source Task, function taskQuantumIs"},
        {9e-10, "taskQuantumInternal_ > TaskTimeDuration( 0 ), source"},
        {-1.0, "taskQuantumInternal_ > TaskTimeDuration( 0 ), source"},
        {1.000000002,
         "taskQuantumInternal_ <= boost::chrono::seconds( 1 ), source Task, function taskQuantumIs"},
        {Mox::endOfTime, "taskQuantumInternal_ <= boost::chrono::seconds( 1 ), source"},
        {std::numeric_limits<double>::quiet_NaN(), "!std::isnan( seconds ), source"},
    };
    for (auto const& c : rejected)
        EXPECT_DEATH(t->taskQuantumIs(c.quantum), testing::HasSubstr(c.text)) << c.quantum;
}

TEST_F(TaskTest, RunWithinItsOwnRunGivesTheOuterRunBackItsState) {
    auto const t = task();
    Ptr<OnRun> const reactor = new OnRun(t, [&] {
        if (t->taskRun() == 2)
            return void(steady.advance(4ms));
        auto const outerStart = t->taskLastRunTimeStamp();
        steady.advance(18ms);
        t->scheduleTask();
        t->taskRunFromTest();
        EXPECT_TRUE(t->taskCurrentlyRunning());
        EXPECT_TRUE(t->taskBusy());
        EXPECT_EQ(outerStart, t->taskLastRunTimeStamp());
        EXPECT_TRUE(t->taskShouldYield()) << "22 ms of a quantum of 20";
    });
    t->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_FALSE(t->taskCurrentlyRunning());
    EXPECT_FALSE(t->taskBusy());
    EXPECT_EQ(0.022, t->taskRunTimeHighWaterMark());
    EXPECT_EQ(0.026, t->taskTotalRunTime());
}

TEST_F(TaskTest, TellsWhatItMeasuredAndForgetsItSilently) {
    auto const t = task("name", TaskPriority::low);
    t->taskQuantumIs(0.001);
    t->taskWorkCountInc(7);
    t->scheduleTask();
    steady.advance(9ms);
    t->unscheduleTask();
    runFor(t, 2ms);
    runFor(t, 6ms);

    Kel::TaskStat cleared;
    cleared.taskNameIs("name"), cleared.taskKeyIs(t->taskKey()), cleared.taskPriorityIs(TaskPriority::low);
    Kel::TaskStat measured = cleared;
    measured.taskRunIs(2), measured.taskTotalRunTimeIs(0.008), measured.taskWorkCountIs(7);
    measured.taskQuantumViolation500Is(1), measured.taskQuantumViolation200Is(1);
    measured.taskRunTimeHighWaterMarkIs(0.006), measured.taskSchedulingLatencyHighWaterMarkIs(0.009);
    EXPECT_EQ(measured, t->getStats());
    Ptr<OnAnything> const reactor = new OnAnything(t, [](std::string_view what) { ADD_FAILURE() << what; });
    t->resetStats();
    EXPECT_EQ(cleared, t->getStats());
}

TEST_F(TaskTest, StreamsAsItsPathAndAddressWhateverTheStreamIsSetTo) {
    auto const t = task("a %s", TaskPriority::scavenge);
    std::ostringstream stream;
    stream << std::showbase << std::uppercase << std::oct << std::setfill('*') << t.ptr() << ' ' << 8;
    std::ostringstream address;
    address << std::hex << reinterpret_cast<std::uintptr_t>(t.ptr());
    EXPECT_EQ("root:'scavenge':a %s@0x" + address.str() + " 010", stream.str());
}

TEST_F(TaskTest, TracesWhatItDoes) {
    TestSupport::TraceLog traces({1, 4, 5, 7, 8, 9});
    auto t = task();
    t->scheduleTask();
    t->unscheduleTask();
    runFor(t, 30ms);
    runFor(t, 50ms);
    t->taskForceYieldInTestIs(true);
    t->taskSuspendedForTestIs(true);
    t->taskSuspendedForTestIs(false);
    t = nullptr;
    EXPECT_EQ(R"(4 TaskScheduler taskRegister: root: Register root:'normal':t@
9 Task taskQuantumIs: Set quantum root:'normal':t@ to 20000000 nanoseconds
8 Task scheduleTask: Scheduled root:'normal':t@
8 TaskScheduler handleSchedulerHasRunnableTasks: root: Scheduler has runnable tasks, request run
8 TaskScheduler handleSchedulerHasRunnableTasks: root: Scheduler has runnable tasks, request run
8 Task unscheduleTaskPrivate: Unscheduled root:'normal':t@
8 Task scheduleTask: Scheduled root:'normal':t@
8 Task taskDoRun: Running root:'normal':t@
7 Task taskDoRun: Ran root:'normal':t@ used 30000000 nanoseconds
8 TaskScheduler handleSchedulerRun: root: Scheduler completed task, request run
8 Task scheduleTask: Scheduled root:'normal':t@
8 Task taskDoRun: Running root:'normal':t@
5 Task taskDoRun: Ran root:'normal':t@ used 50000000 nanoseconds 250% violation
8 TaskScheduler handleSchedulerRun: root: Scheduler completed task, request run
1 Task handleTaskForceYieldInTest: Set quantum root:'normal':t@ to 0
1 Task handleTaskSuspendedForTest: Suspend root:'normal':t@
1 Task handleTaskSuspendedForTest: Unsuspend root:'normal':t@
8 Task scheduleTask: Scheduled root:'normal':t@
4 TaskScheduler taskUnregister: root: Unregister root:'normal':t@
)",
              traces.take());
}

} // namespace
