#include <scheduler/TaskSchedulerReport.h>

#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>

#include <gtest/gtest.h>

#include <functional>
#include <iomanip>
#include <sstream>
#include <utility>

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

TEST(TaskSchedulerReport, PrintsItsTablesToTheLetter) {
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
    struct {
        std::string file;
        U32 indent, leftOut, deadLeftOut;
        bool withDead, withAddresses;
    } const cases[] = {
        {"report.txt", 0, 0, 0, false, false},
        {"report_dead_indent3.txt", 3, 1, 2, true, false},
        {"report_addresses.txt", 0, 0, 0, true, true},
    };
    for (auto const& c : cases) {
        auto const sink = StringDumpContext::StringDumpContextIs();
        printStatsImpl(sink, c.indent, queues, 0.0123456, &live, c.leftOut, c.withDead ? &dead : nullptr,
                       c.deadLeftOut, c.withAddresses);
        EXPECT_EQ(golden("scheduler/golden/" + c.file), sink->text()) << c.file;
    }
}

TEST(TaskSchedulerReport, PrintsNamesOfAnyLength) {
    std::string const longest = "%s" + std::string(9998, 'x');
    std::vector<TaskStat> live = {stat("", TaskPriority::low, 0, 0, 0.0, 0),
                                  stat(longest, TaskPriority::low, 0, 2, 1.0, 3)};
    live[1].taskRunTimeHighWaterMarkIs(0.5009); // not rounded
    auto const sink = StringDumpContext::StringDumpContextIs();
    taskSchedulerDisplay(sink, 0, &live, "Title", 0, false, false);
    std::ostringstream expected;
    expected << std::left << std::setw(10000) << "Title"
             << " SP   RunCount      TotalSec  WorkCount Last/Max-Delay 200% 500% MaxMs\n"
             << longest << "  l          2         1.000          3  0.250   0.333    1    0   500\n"
             << std::setw(10000) << ""
             << "  l          0         0.000          0  0.000   0.000    0    0     0\n\n";
    EXPECT_EQ(expected.str(), sink->text());
}

struct TaskSchedulerReportTest : HandTreeTest {
    TaskSchedulerReportTest() { steady.nowIs(0ns); }

    std::string print(TaskScheduler& scheduler, U32 indent, bool neverRun, bool dead, bool history) {
        auto const sink = StringDumpContext::StringDumpContextIs();
        scheduler.printStats(sink, indent, neverRun, dead, false, history);
        return sink->text();
    }
};

TEST_F(TaskSchedulerReportTest, OfAnEmptySchedulerBelowTheRootIsItsHeadersAndLegend) {
    Ptr<HandScheduler> const below = new HandScheduler("below", root.ptr());
    EXPECT_EQ(golden("scheduler/golden/report_below_root_indent3.txt"), print(*below, 3, true, false, true));
}

TEST_F(TaskSchedulerReportTest, OfARootShowsWhatItsTasksDid) {
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
    EXPECT_EQ(golden("scheduler/golden/report_root.txt"), print(*root, 0, false, true, true));
}

/// Calls the function with each line behind the first.
class CallingSink : public DumpContext {
  public:
    explicit CallingSink(std::function<void()> call) : call_(std::move(call)) {}
    mutable std::string text;

  private:
    void write(std::string_view line) const override {
        if (!std::exchange(text, text + std::string(line)).empty())
            call_();
    }
    std::function<void()> const call_;
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
            Ptr<CallingSink> const sink = new CallingSink(act);
            history ? root->printHistory(sink, 0) : root->printStats(sink, 0, true, true, false, false);
            EXPECT_EQ(expected.empty() ? expected = sink->text : expected, sink->text) << &act - acts;
        }
    }
}

} // namespace
