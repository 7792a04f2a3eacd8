#include <scheduler/TaskSchedulerReport.h>

#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>

namespace {

using namespace TestSupport;
using Event = TaskSchedulerHistory::Event;
using EventType = TaskSchedulerEventType;
using testing::HasSubstr;

struct HistoryAndReportTest : HandTreeTest {
    HistoryAndReportTest() { steady.nowIs(0ns); }

    Ptr<StringDumpContext> const sink = StringDumpContext::StringDumpContextIs();
};

TaskTimeStamp at(ManualClock::Duration time) { return TaskTimeStamp(Nanoseconds(time.count())); }

TEST_F(HistoryAndReportTest, DisplaysEachTypeByItsLabelAndItsTaskWhereItTakesOne) {
    auto const t = task();
    std::string shown;
    for (U8 type = 0; type < 18; ++type) {
        auto const eventType = static_cast<EventType>(type);
        shown += Event({}, eventType).display() + '|';
        if (Event::eventNeedTask(eventType))
            shown += Event({}, eventType, Ptr<Task const>(t)).display() + '|';
        else
            EXPECT_DEATH(Event({}, eventType, Ptr<Task const>(t)),
                         HasSubstr("eventNeedTask( _eventType ), source TaskSchedulerHistory"));
        shown += '\n';
    }
    EXPECT_EQ(golden("history_labels"), shown);
}

/// A random program on a history and on a deque. Only `read()` looks into the history, which turns its ring.
struct HistoryProgram {
    void insert() {
        steady.advance(random.oneIn(100) ? -50ms : 1ms);
        auto const record =
            random.oneIn(10) ? TaskRecord::TaskRecordIs("t", TaskPriority::normal, name) : nullptr;
        model.emplace_front(at(steady.now()), record != nullptr);
        history.insert({model[0].first, EventType::schedule, Ptr<TaskRecord const>(record)});
        records += model[0].second;
        if (model.size() > TaskSchedulerHistory::capacity)
            popOldest();
    }
    void popOldest() {
        records -= model.back().second;
        model.pop_back();
    }
    /// What is older than some event goes, which stays or goes, too.
    void trim() {
        TaskTimeDuration age(-static_cast<std::int64_t>(random.below(2)));
        if (!model.empty())
            age += at(steady.now()) - (random.oneIn(3) ? model.front() : random.of(model)).first;
        std::size_t const before = model.size();
        while (!model.empty() && model.back().first < at(steady.now()) - age)
            popOldest();
        ASSERT_EQ(before - model.size(), history.deleteOlderThan(age));
    }
    void clearAndFill() {
        history.clear(), model.clear(), records = 0;
        for (std::size_t left = TaskSchedulerHistory::capacity - 1 + random.below(3); left > 0; --left)
            insert();
    }
    void read() {
        ASSERT_TRUE(std::ranges::equal(history, model, {}, &Event::timeStamp,
                                       &std::pair<TaskTimeStamp, bool>::first));
    }
    void step() {
        std::size_t const operation = random.below(2'000);
        random.doing("operation", static_cast<double>(operation));
        operation == 0 ? clearAndFill() : operation < 4 ? trim() : operation < 8 ? read() : insert();
        ASSERT_EQ(model.size(), history.size());
        ASSERT_EQ(model.empty(), history.empty());
        ASSERT_EQ(1 + records, name->use_count());
    }

    Random random;
    ManualClock steady;
    TaskSchedulerHistory history;
    Ptr<SchedulerName const> const name = new SchedulerName("root"); // each record holds it
    std::deque<std::pair<TaskTimeStamp, bool>> model;                // newest first; whether it is of a task
    std::ptrdiff_t records = 0;
};

TEST(TaskSchedulerHistory, HoldsWhatADequeHoldsAndFreesWhatItShowsOfATaskWithTheEvent) {
    HistoryProgram program;
    for (std::size_t step = 0; step < operations(1'000'000) && !testing::Test::HasFailure(); ++step)
        program.step();
}

TEST_F(HistoryAndReportTest, PrintsToTheLetter) {
    steady.nowIs(12'345ns);
    auto t = task("50%s done", TaskPriority::low);
    t->scheduleTask();
    steady.advance(1'500ns);
    t->taskSuspendedForTestIs(true);
    t->scheduleTask();
    t = nullptr; // dead tasks are shown as they were
    steady.advance(9ms + 999ns);
    root->printHistory(sink, 4);
    root->clearHistory();
    root->printHistory(sink, 4);
    EXPECT_EQ(golden("history"), sink->text());
}

TEST_F(HistoryAndReportTest, IsTrimmedTenSecondsAfterTheRootWentIdle) {
    auto const t = task();
    auto const goIdle = [&] { t->scheduleTask(), root->runUntilIdle(); };
    goIdle();
    EXPECT_FALSE(root->trimHistoryTask()) << "not enabled";
    root->trimHistoryEnabledIs(true);
    goIdle();
    auto const trim = root->trimHistoryTask()->notifier();
    EXPECT_EQ(TaskPriority(TaskPriority::scavenge), trim->taskPriority());
    steady.advance(4s), timePasses(4.0);
    goIdle(); // keeps the run that is pending
    EXPECT_EQ(10.0, trim->currentExpirationTime());
    steady.advance(6s + 1ns), timePasses(6.0);
    EXPECT_EQ(1u, root->runUntilIdle());
    EXPECT_EQ(at(4s), (root->history().end() - 1)->timeStamp());
    EXPECT_EQ(20.0, trim->currentExpirationTime()) << "armed again, since the root went idle again";
    root->trimHistoryTaskDel();
    timePasses(20.0);
    EXPECT_FALSE(trim->taskScheduled()) << "its timer is silent";
}

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

TEST_F(HistoryAndReportTest, PrintsItsTablesToTheLetter) {
    std::vector<TaskStat> live = {
        stat("idle", TaskPriority::scavenge, 0x00, 0, 0.0, 0),
        stat("100%s %n", TaskPriority::normal, 0x0c, 4000000000, 86400.0018, 0),
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
    EXPECT_EQ(golden("report_tables"), sink->text() + tablesOfTasks(withKeys->text()));
}

TEST_F(HistoryAndReportTest, OfARootShowsWhatItsTasksDidAndBelowItAnEmptySchedulersNothing) {
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
    casualty->scheduleTask();
    steady.advance(3ms);
    casualty = nullptr;
    root->runUntilIdle();
    timer->scheduleTaskDelay(5.0);
    root->clearHistory();
    worker->scheduleTask();
    steady.advance(2us);
    root->printStats(sink, 0, false, true, false, true);
    Ptr<HandScheduler> const below = new HandScheduler("below", root.ptr());
    auto const ofNone = StringDumpContext::StringDumpContextIs();
    below->printStats(ofNone, 3, true, false, false, true);
    std::string const shown = sink->text(), counts = shown.substr(0, shown.find("SP  "));
    EXPECT_EQ(golden("report_root"), counts + tablesOfTasks(shown) + tablesOfTasks(ofNone->text()));
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

TEST_F(HistoryAndReportTest, ShowsWhatWasWhateverItsSinkDoes) {
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
