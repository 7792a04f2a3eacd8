#include <scheduler/TaskSchedulerHistory.h>

#include <mox/Exception.h>
#include <support/Golden.h>
#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

#include <deque>

namespace {

using namespace std::chrono_literals;
using Event = Kel::TaskSchedulerHistory::Event;
using EventType = Kel::TaskSchedulerEventType;
using Kel::SchedulerName;
using Kel::TaskPriority;
using Kel::TaskRecord;
using Kel::TaskSchedulerHistory;
using Kel::TaskTimeStamp;
using Mox::Ptr;
using testing::ElementsAre;
using testing::HasSubstr;

TaskTimeStamp at(TestSupport::ManualClock::Duration time) {
    return TaskTimeStamp(Mox::Nanoseconds(time.count()));
}

struct TaskSchedulerHistoryTest : TestSupport::HandTreeTest {
    std::string printed(Mox::U32 indent) {
        auto const sink = Kel::StringDumpContext::StringDumpContextIs();
        root->printHistory(sink, indent);
        return sink->text();
    }
};

TEST_F(TaskSchedulerHistoryTest, DisplaysEachTypeByItsLabel) {
    struct {
        Mox::U8 type;
        char const* withTask; // null: the type takes no task
        char const* alone;
    } const cases[] = {
        {0, "schedule   N t", "schedule   "},  {1, "unschedule N t", "unschedule "},
        {2, "run start  N t", "run start  "},  {3, "run end    N t", "run end    "},
        {4, "timerStart N t", "timerStart "},  {5, "timerStop  N t", "timerStop  "},
        {6, "suspendOn  N t", "suspendOn  "},  {7, "suspendOff N t", "suspendOff "},
        {8, "scheduleSusN t", "scheduleSus"},  {9, "frcYieldOn N t", "frcYieldOn "},
        {10, "frcYieldOffN t", "frcYieldOff"}, {11, "idle       N t", "idle       "},
        {12, "busy       N t", "busy       "}, {13, nullptr, "schedulerIdle"},
        {14, nullptr, "schedulerRunnable"},    {15, nullptr, "schedulerSuspended"},
        {16, nullptr, "schedulerUnsuspended"}, {17, nullptr, "schedulerRunIgnoredWhileSuspended"},
    };
    auto const t = task();
    for (auto const& c : cases) {
        auto const type = static_cast<EventType>(c.type);
        EXPECT_EQ(c.alone, Event({}, type).display());
        EXPECT_EQ(c.withTask != nullptr, Event::eventNeedTask(type));
        if (c.withTask)
            EXPECT_EQ(c.withTask, Event({}, type, t.ptr()).display());
        else
            EXPECT_DEATH(Event({}, type, t.ptr()),
                         HasSubstr("eventNeedTask( _eventType ), source TaskSchedulerHistory"));
    }
    EXPECT_EQ("N t", Kel::historyEventDisplayTask(t));
    EXPECT_EQ("", Kel::historyEventDisplayTask(nullptr));

    auto const beyond = static_cast<EventType>(18);
    EXPECT_DEATH(
        Event::eventNeedTask(beyond),
        HasSubstr("0 && \"unexpected eventType\", source TaskSchedulerHistory, function eventNeedTask"));
    EXPECT_DEATH(Event({}, beyond).display(),
                 HasSubstr("0 && \"unexpected eventType\", source TaskScheduler, function display"));
}

TEST(TaskSchedulerHistory, FreesWhatItShowsOfATaskExactlyWhenTheEventIsOverwritten) {
    TaskSchedulerHistory history;
    Ptr<SchedulerName const> const name = new SchedulerName("root"); // each record holds it
    history.insert({at(1ns), EventType::schedule, TaskRecord::TaskRecordIs("a", TaskPriority::normal, name)});
    for (int i = 0; i < 9999; ++i)
        history.insert({at(2ns), EventType::schedulerIdle});
    EXPECT_EQ(10000u, history.size());
    EXPECT_EQ(2u, name->use_count());
    history.insert({at(3ns), EventType::schedulerIdle});
    EXPECT_EQ(10000u, history.size());
    EXPECT_EQ(1u, name->use_count());
    EXPECT_EQ(at(3ns), history.begin()->timeStamp()) << "newest first";
    history.insert({at(4ns), EventType::schedule, TaskRecord::TaskRecordIs("b", TaskPriority::normal, name)});
    history.clear();
    EXPECT_EQ(1u, name->use_count());
}

TEST(TaskSchedulerHistory, DeletesFromTheOldestUpToTheFirstThatIsYoungEnough) {
    TestSupport::ManualClock steady(100s);
    TaskSchedulerHistory history;
    EXPECT_EQ(0u, history.deleteOlderThan(Mox::Nanoseconds(0)));
    for (auto const time : {80s - 1ns, 80s + 0ns, 90s - 1ns, 90s + 0ns, 89s + 0ns, 95s + 0ns})
        history.insert({at(time), EventType::schedulerIdle});
    EXPECT_EQ(1u, history.deleteOlderThan(boost::chrono::seconds(20))) << "one exactly at the cutoff is kept";
    EXPECT_EQ(2u, history.deleteOlderThan(boost::chrono::seconds(10)))
        << "one at 89 s lies in front of one at 90 s";
    EXPECT_EQ(0u, history.deleteOlderThan(boost::chrono::seconds(10)));
    EXPECT_EQ(3u, history.deleteOlderThan(boost::chrono::seconds(1)));
    EXPECT_TRUE(history.empty());
}

TEST(TaskSchedulerHistory, HoldsWhatADequeHolds) {
    TestSupport::Random random;
    TestSupport::ManualClock steady;
    TaskSchedulerHistory history;
    std::deque<TaskTimeStamp> model; // newest first
    std::size_t const steps = TestSupport::operations(1'000'000);
    bool wasFull = false;
    for (std::size_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
        steady.advance(1ms);
        if (random.oneIn(20'000)) {
            auto const age = boost::chrono::milliseconds(static_cast<int>(random.below(12'000)));
            std::size_t const before = model.size();
            while (!model.empty() && model.back() < at(steady.now()) - age)
                model.pop_back();
            ASSERT_EQ(before - model.size(), history.deleteOlderThan(age));
        } else if (random.oneIn(100'000)) {
            history.clear(), model.clear();
        } else {
            auto const stamp = at(steady.now());
            history.insert({stamp, EventType::schedulerIdle});
            model.push_front(stamp);
            if (model.size() > TaskSchedulerHistory::capacity)
                model.pop_back();
        }
        wasFull = wasFull || model.size() == TaskSchedulerHistory::capacity;
        ASSERT_EQ(model.size(), history.size());
        if (!model.empty()) {
            ASSERT_EQ(model.front(), history.begin()->timeStamp());
            ASSERT_EQ(model.back(), (history.end() - 1)->timeStamp());
        }
        ASSERT_TRUE(step % 10'000 != 0 || std::ranges::equal(model, history, {}, {}, &Event::timeStamp));
    }
    EXPECT_TRUE(wasFull);
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
    EXPECT_EQ(TestSupport::golden("scheduler/golden/history.txt"), printed(0));
    EXPECT_EQ(TestSupport::golden("scheduler/golden/history_indent4.txt"), printed(4));
    root->clearHistory();
    EXPECT_EQ(TestSupport::golden("scheduler/golden/history_empty.txt"), printed(0));
}

TEST_F(TaskSchedulerHistoryTest, IsTrimmedTenSecondsAfterTheRootWentIdle) {
    TestSupport::TraceLog traces({8});
    auto const t = task();
    auto const goIdle = [&] { t->scheduleTask(), root->runUntilIdle(), traces.take(); };
    goIdle();
    t->scheduleTask();
    root->runUntilIdle();
    EXPECT_THAT(traces.take(),
                HasSubstr("8 TaskScheduler trimHistoryTaskSchedule: root: trim history disabled"));
    EXPECT_FALSE(root->trimHistoryTask());

    root->trimHistoryEnabledIs(true);
    EXPECT_FALSE(root->trimHistoryTask());
    root->clearHistory();
    goIdle();
    auto const trim = root->trimHistoryTask()->notifier();
    EXPECT_EQ("TaskSchedulerTrimHistory", trim->taskName());
    EXPECT_EQ(TaskPriority(TaskPriority::scavenge), trim->taskPriority());
    EXPECT_EQ(10.0, trim->currentExpirationTime());
    auto const events = root->history().size();

    steady.advance(4s), timePasses(4.0);
    goIdle(); // keeps the run that is pending
    EXPECT_EQ(10.0, trim->currentExpirationTime());
    steady.advance(6s), timePasses(6.0);
    steady.advance(1ns);
    auto const before = root->history().size();
    EXPECT_EQ(1u, root->runUntilIdle());
    EXPECT_THAT(traces.take(), HasSubstr("8 TaskScheduler handleTrimHistoryTaskRun: root: Deleted " +
                                         std::to_string(events) + " scheduler events older than 10 seconds"));
    EXPECT_LT(root->history().size(), before + 10);
    EXPECT_EQ(at(1004s), (root->history().end() - 1)->timeStamp());
    EXPECT_EQ(20.0, trim->currentExpirationTime()) << "armed again, since the root went idle again";
}

TEST_F(TaskSchedulerHistoryTest, TrimTaskIsMadeOnceAndOrphanedWhenItIsDropped) {
    auto const name = root->nameRecord();
    EXPECT_EQ(nullptr, root->trimHistoryTaskDel());
    auto trim = root->trimHistoryTaskIs(root, TaskPriority::low, "trim");
    EXPECT_EQ(trim, root->trimHistoryTaskIs(root, TaskPriority::high, "other"));
    trim->scheduleTaskDelay(1.0);
    EXPECT_EQ(trim, root->trimHistoryTaskDel());
    EXPECT_FALSE(trim->taskScheduler());
    EXPECT_EQ(nullptr, root->tasksRegistered(trim->taskKey()));
    timePasses(2.0); // its timer is silent
    EXPECT_DEATH(trim->scheduleTaskDelay(1.0), HasSubstr("__null != taskScheduler_"));

    trim = root->trimHistoryTaskIs(root, TaskPriority::low, "trim"); // another one
    root->trimHistoryTask()->notifierIs(nullptr);
    EXPECT_THROW(root->trimHistoryTaskIs(root, TaskPriority::low, "trim"), Mox::RangeException);
    root->trimHistoryTaskDel();
    trim = root->trimHistoryTaskIs(root, TaskPriority::low, "trim");
    root = nullptr; // the root's own task does not keep it
    EXPECT_FALSE(trim->taskScheduler());
    trim = nullptr;
    EXPECT_EQ(1u, name->use_count());
}

} // namespace
