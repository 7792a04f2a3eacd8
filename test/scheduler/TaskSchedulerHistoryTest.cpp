#include <scheduler/TaskSchedulerHistory.h>

#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/Random.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>

namespace {

using namespace TestSupport;
using Event = TaskSchedulerHistory::Event;
using EventType = TaskSchedulerEventType;
using testing::HasSubstr;

TaskTimeStamp at(ManualClock::Duration time) { return TaskTimeStamp(Nanoseconds(time.count())); }

struct TaskSchedulerHistoryTest : HandTreeTest {
    std::string printed() {
        auto const sink = StringDumpContext::StringDumpContextIs();
        root->printHistory(sink, 4);
        return sink->text();
    }
};

TEST_F(TaskSchedulerHistoryTest, DisplaysEachTypeByItsLabelAndItsTaskWhereItTakesOne) {
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
    EXPECT_EQ(golden("scheduler/golden/history_labels.txt"), shown);
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
    /// What is older than some event goes, which stays.
    void trim() {
        auto const age = model.empty() ? TaskTimeDuration(0) : at(steady.now()) - random.of(model).first;
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

TEST_F(TaskSchedulerHistoryTest, PrintsToTheLetter) {
    steady.nowIs(12'345ns);
    auto t = task("50%s done", TaskPriority::low);
    t->scheduleTask();
    steady.advance(1'500ns);
    t->taskSuspendedForTestIs(true);
    t->scheduleTask();
    t = nullptr; // dead tasks are shown as they were
    steady.advance(9ms + 999ns);
    std::string const full = printed();
    root->clearHistory();
    EXPECT_EQ(golden("scheduler/golden/history.txt"), full + printed());
}

TEST_F(TaskSchedulerHistoryTest, IsTrimmedTenSecondsAfterTheRootWentIdle) {
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
    EXPECT_EQ(at(1004s), (root->history().end() - 1)->timeStamp());
    EXPECT_EQ(20.0, trim->currentExpirationTime()) << "armed again, since the root went idle again";
    root->trimHistoryTaskDel();
    timePasses(20.0);
    EXPECT_FALSE(trim->taskScheduled()) << "its timer is silent";
}

} // namespace
