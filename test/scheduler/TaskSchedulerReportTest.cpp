#include <scheduler/TaskSchedulerReport.h>

#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace TestSupport;

TaskStat stat(String const& name, TaskPriority priority, U32 status, U32 runs, Seconds total, U64 work) {
    TaskStat result;
    result.taskNameIs(name), result.taskKeyIs(TaskKey(0xbeef0 + name.size()));
    result.taskPriorityIs(priority), result.taskStatusIs(TaskStat::TaskStatus(status));
    result.taskRunIs(runs), result.taskTotalRunTimeIs(total), result.taskWorkCountIs(work);
    result.taskQuantumViolation200Is(runs / 2), result.taskQuantumViolation500Is(runs / 3);
    result.taskRunTimeHighWaterMarkIs(total / 2), result.taskLastSchedulingLatencyIs(total / 4);
    result.taskSchedulingLatencyHighWaterMarkIs(total / 3);
    result.taskDeadCountIs(runs + 1);
    return result;
}

/// The report without its head.
std::string tablesOfTasks(std::string const& report) { return report.substr(report.find("TaskName")); }

struct TaskSchedulerReportTest : HandTreeTest {
    TaskSchedulerReportTest() { steady.nowIs(0ns); }

    Ptr<StringDumpContext> const sink = StringDumpContext::StringDumpContextIs();
};

TEST_F(TaskSchedulerReportTest, PrintsItsTablesToTheLetter) {
    std::vector<TaskStat> live = {
        stat("idle", TaskPriority::scavenge, 0x00, 0, 0.0, 0),
        stat("100%s %n", TaskPriority::normal, 0x0c, 4000000000, 86400.0005, 0),
        stat("ein Schläfer", TaskPriority::low, 0x03, 12, 1.5, 18446744073709551615u),
    };
    std::vector<TaskStat> dead = {
        stat("x", TaskPriority::high, 0x01, 1, 0.25, 7),
        stat("yy", TaskPriority::absolute, 0x00, 3, 0.75, 0),
    };
    TaskSchedulerQueueStats queues; // without an entry for low
    for (U32 p : {4u, 0u, 1u, 2u}) {
        TaskSchedulerPriorityStats entry(TaskPriority::PriorityEnumInstance(p));
        entry.runnableTasksIs(p), entry.idleTasksIs(4294967295u - p), entry.deadTasksIs(p * 1000);
        entry.totalRunCountIs(10000000000u * p);
        queues.priorityIs(entry);
    }
    printStatsImpl(sink, 3, queues, 0.0123456, &live, 1, &dead, 2, false);
    auto const withKeys = StringDumpContext::StringDumpContextIs();
    printStatsImpl(withKeys, 0, queues, 0.0123456, &live, 0, &dead, 0, true);
    EXPECT_EQ(golden("scheduler/golden/report_tables.txt"), sink->text() + tablesOfTasks(withKeys->text()));
}

TEST_F(TaskSchedulerReportTest, PrintsNamesOfAnyLength) {
    std::string const longest = "%s" + std::string(9998, 'x');
    std::vector<TaskStat> live = {stat(longest, TaskPriority::low, 0, 2, 1.0018, 3)};
    taskSchedulerDisplay(sink, 0, &live, "Title", 0, false, false);
    EXPECT_EQ("Title" + std::string(9995, ' ') +
                  " SP   RunCount      TotalSec  WorkCount Last/Max-Delay 200% 500% MaxMs\n" + longest +
                  "  l          2         1.002          3  0.250   0.334    1    0   500\n\n",
              sink->text())
        << "500.9 ms are not rounded";
}

TEST_F(TaskSchedulerReportTest, OfARootShowsWhatItsTasksDidAndBelowItAnEmptySchedulersNothing) {
    root = HandRoot::HandRootIs(); // on the clock that starts at 0
    auto const worker = task("worker", TaskPriority::high);
    auto const timer = timerTask("timer", TaskPriority::low);
    auto const idle = task("idle");
    { auto const neverRan = task("never ran"); }
    auto casualty = task("casualty", TaskPriority::scavenge);
    Ptr<OnRun> const works = new OnRun(worker, [&] {
        worker->taskWorkCountInc(1000);
        steady.advance(worker->taskRun() == 1 ? 50ms : 150ms);
        worker->scheduleTask();
    });
    worker->scheduleTask();
    timer->scheduleTask();
    casualty->scheduleTask();
    steady.advance(7ms);
    for (int pass = 0; pass < 2; ++pass)
        root->handleSchedulerRun();
    worker->unscheduleTask();
    root->runUntilIdle();
    casualty = nullptr;
    timer->scheduleTaskDelay(5.0);
    root->clearHistory();
    worker->scheduleTask();
    steady.advance(2us);
    root->printStats(sink, 0, false, true, false, true);
    Ptr<HandScheduler> const below = new HandScheduler("below", root.ptr());
    auto const ofNone = StringDumpContext::StringDumpContextIs();
    below->printStats(ofNone, 3, true, false, false, true);
    EXPECT_EQ(golden("scheduler/golden/report_root.txt"), sink->text() + tablesOfTasks(ofNone->text()));
}

/// Calls the function with each line behind the first.
struct CallingSink : DumpContext {
    void write(std::string_view line) const override {
        if (!std::exchange(text, text + std::string(line)).empty())
            call();
    }
    mutable std::string text;
    std::function<void()> call;
};

TEST_F(TaskSchedulerReportTest, ShowsWhatWasWhateverItsSinkDoes) {
    Ptr<Task> t;
    std::function<void()> const acts[] = {
        [] {},
        [&] { task("another")->scheduleTask(), root->runUntilIdle(); },
        [&] { root->clearHistory(), root->deadTaskStatsDelAll(), t = nullptr; },
        [&] { root->resetStats(), root->runUntilIdle(); },
        [&] { t = nullptr, root = nullptr; },
    };
    for (bool const history : {false, true}) {
        std::string expected;
        for (auto const& act : acts) {
            root = HandRoot::HandRootIs();
            t = task("t"), task("dead");
            t->scheduleTask();
            Ptr<CallingSink> const calls = new CallingSink;
            calls->call = act;
            history ? root->printHistory(calls, 0) : root->printStats(calls, 0, true, true, false, false);
            EXPECT_EQ(expected.empty() ? expected = calls->text : expected, calls->text) << &act - acts;
        }
    }
}

} // namespace
