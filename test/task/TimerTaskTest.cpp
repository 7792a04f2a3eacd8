#include <task/TimerTask.h>

#include <support/HandRoot.h>
#include <support/TaskReactors.h>
#include <support/TraceLog.h>

#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <limits>

namespace {

using namespace std::chrono_literals;
using Kel::TaskPriority;
using Kel::TimerTask;
using Mox::endOfTime;
using Mox::Ptr;
using Mox::Seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::OnRun;

constexpr Seconds huge = std::numeric_limits<Seconds>::max();
constexpr Seconds nan = std::numeric_limits<Seconds>::quiet_NaN();

struct TimerTaskTest : TestSupport::HandTreeTest {
    TimerTaskTest() { timePasses(100.0); } // Mox::now() is 100
};

TEST_F(TimerTaskTest, KeepsOrReplacesWhatWasPending) {
    using Events = std::vector<std::string>;
    struct {
        char const* what;
        void (*act)(TimerTask&);
        Seconds expiry; // of the timer, seconds from now; endOfTime: disarmed
        bool queued;
        Events events;
    } const cases[] = {
        {"delay 0 schedules",
         [](TimerTask& t) { t.scheduleTaskDelay(0.0); },
         endOfTime,
         true,
         {"schedule", "busy"}},
        {"lowest delay 0 schedules",
         [](TimerTask& t) { t.scheduleTaskLowestDelay(0.0); },
         endOfTime,
         true,
         {"schedule", "busy"}},
        {"jitter of delay 0 schedules",
         [](TimerTask& t) { t.scheduleTaskJitterUp(0.0, 50); },
         endOfTime,
         true,
         {"schedule", "busy"}},
        {"a short delay is a tick",
         [](TimerTask& t) { t.scheduleTaskDelay(0.004); },
         0.01,
         false,
         {"timerStart", "busy"}},
        {"a delay just below a tick is one",
         [](TimerTask& t) { t.scheduleTaskDelay(0.00999); },
         0.01,
         false,
         {"timerStart", "busy"}},
        {"a negative delay is a tick",
         [](TimerTask& t) { t.scheduleTaskDelay(-5.0); },
         0.01,
         false,
         {"timerStart", "busy"}},
        {"an infinitely negative delay is a tick",
         [](TimerTask& t) { t.scheduleTaskDelay(-endOfTime); },
         0.01,
         false,
         {"timerStart", "busy"}},
        {"lowest delay takes it too",
         [](TimerTask& t) { t.scheduleTaskLowestDelay(-endOfTime); },
         0.01,
         false,
         {"timerStart", "busy"}},
        {"negative jitter is a tick",
         [](TimerTask& t) { t.scheduleTaskJitterUp(-5.0, 50); },
         0.01,
         false,
         {"timerStart", "busy"}},
        {"a delay above a tick is itself",
         [](TimerTask& t) { t.scheduleTaskDelay(0.011); },
         0.011,
         false,
         {"timerStart", "busy"}},
        {"the largest delay arms",
         [](TimerTask& t) { t.scheduleTaskDelay(huge); },
         huge,
         false,
         {"timerStart", "busy"}},
        {"jitter above it arms",
         [](TimerTask& t) { t.scheduleTaskJitterUp(huge, 255); },
         huge,
         false,
         {"timerStart", "busy"}},
        {"never stops",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskDelay(endOfTime); },
         endOfTime,
         false,
         {"timerStart", "busy", "timerStop", "idle"}},
        {"never jittered up stops",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskJitterUp(endOfTime, 10); },
         endOfTime,
         false,
         {"timerStart", "busy", "timerStop", "idle"}},
        {"never jittered down stops",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskJitterDown(endOfTime, 101); },
         endOfTime,
         false,
         {"timerStart", "busy", "timerStop", "idle"}},
        {"lowest keeps an earlier one",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskLowestDelay(5.0); },
         2.0,
         false,
         {"timerStart", "busy"}},
        {"lowest moves a later one",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskLowestDelay(1.0); },
         1.0,
         false,
         {"timerStart", "busy", "timerStart"}},
        {"lowest leaves the queue alone",
         [](TimerTask& t) { t.scheduleTask(), t.scheduleTaskLowestDelay(1.0); },
         endOfTime,
         true,
         {"schedule", "busy"}},
        {"delay replaces a timer",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskDelay(5.0); },
         5.0,
         false,
         {"timerStart", "busy", "timerStart"}},
        {"delay replaces a place in the queue",
         [](TimerTask& t) { t.scheduleTask(), t.scheduleTaskDelay(5.0); },
         5.0,
         false,
         {"schedule", "busy", "unschedule", "timerStart"}},
        {"schedule replaces a timer",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTask(); },
         endOfTime,
         true,
         {"timerStart", "busy", "schedule"}},
        {"delay 0 replaces a timer",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.scheduleTaskDelay(0.0); },
         endOfTime,
         true,
         {"timerStart", "busy", "schedule"}},
        {"unschedule leaves the timer",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.unscheduleTask(); },
         2.0,
         false,
         {"timerStart", "busy"}},
        {"stop of a timer",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.stopTimerTask(); },
         endOfTime,
         false,
         {"timerStart", "busy", "timerStop", "idle"}},
        {"stop of a queued one",
         [](TimerTask& t) { t.scheduleTask(), t.stopTimerTask(); },
         endOfTime,
         false,
         {"schedule", "busy", "unschedule", "idle"}},
        {"stop of an idle one", [](TimerTask& t) { t.stopTimerTask(); }, endOfTime, false, {}},
        {"run from test disarms",
         [](TimerTask& t) { t.scheduleTaskDelay(2.0), t.taskRunFromTest(); },
         endOfTime,
         false,
         {"timerStart", "busy", "run start", "run end", "idle"}},
    };
    root->schedulerHasRunnableTasksIs(true); // no events of the scheduler in between
    for (auto const& c : cases) {
        SCOPED_TRACE(c.what);
        auto const t = timerTask();
        root->clearHistory();
        c.act(*t);
        Events events;
        for (std::string const& event : root->takeHistory())
            events.push_back(event.substr(0, event.find_last_not_of(' ', 10) + 1));
        EXPECT_EQ(c.events, events);
        EXPECT_EQ(c.expiry == huge ? huge : 100.0 + c.expiry, t->timer()->timeMin());
        EXPECT_EQ(c.queued, t->taskRunQueueLink().isLinked());
        EXPECT_EQ(c.queued ? 100.0 : t->timer()->timeMin(), t->currentExpirationTime());
        EXPECT_EQ(c.queued || c.expiry != endOfTime, t->taskScheduled());
        EXPECT_EQ(t->taskScheduled(), t->taskBusy());
        EXPECT_EQ(1u | (c.expiry != endOfTime ? 2u : 0u) | (c.queued ? 4u : 0u), t->taskStatus().value());
    }
}

TEST_F(TimerTaskTest, ExpiryQueuesTheTaskWhichRunsInTheNextPass) {
    auto const t = timerTask();
    t->scheduleTaskDelay(2.0);
    timePasses(1.99);
    EXPECT_EQ(102.0, t->currentExpirationTime());
    timePasses(0.01);
    EXPECT_EQ(endOfTime, t->timer()->timeMin());
    EXPECT_TRUE(t->taskRunQueueLink().isLinked());
    EXPECT_EQ(0u, t->taskRun());
    EXPECT_EQ(1u, root->runUntilIdle());
    timePasses(1000.0);
    EXPECT_EQ(0u, root->runUntilIdle());
    EXPECT_FALSE(t->taskBusy());
}

TEST_F(TimerTaskTest, ReArmsInItsOwnRun) {
    auto const t = timerTask();
    std::vector<Seconds> runs;
    Ptr<OnRun> const reactor = new OnRun(t, [&] {
        runs.push_back(Mox::now());
        t->scheduleTaskDelay(runs.size() == 1 ? 3.0 : 0.0);
    });
    t->scheduleTaskDelay(1.0);
    for (int second = 0; second < 4; ++second) {
        timePasses(1.0);
        root->handleSchedulerRun();
    }
    root->handleSchedulerRun();
    EXPECT_THAT(runs, ElementsAre(101.0, 104.0, 104.0));
}

TEST_F(TimerTaskTest, ExpiryWhileSuspendedLeavesItIdle) {
    auto const t = timerTask();
    t->taskSuspendedForTestIs(true);
    t->scheduleTaskDelay(1.0);
    EXPECT_TRUE(t->taskBusy());
    root->clearHistory();
    timePasses(1.0);
    EXPECT_THAT(root->takeHistory(), ElementsAre("scheduleSusN t", "idle       N t"));
    EXPECT_FALSE(t->taskBusy());
}

TEST_F(TimerTaskTest, ArmedTimerSurvivesASuspension) {
    auto const t = timerTask();
    t->scheduleTaskDelay(5.0);
    t->taskSuspendedForTestIs(true);
    timePasses(1.0);
    t->taskSuspendedForTestIs(false);
    EXPECT_EQ(105.0, t->currentExpirationTime());
    EXPECT_FALSE(t->taskRunQueueLink().isLinked());
    timePasses(4.0);
    EXPECT_EQ(1u, root->runUntilIdle());
}

TEST_F(TimerTaskTest, DeadOneIsFiledAsATimerTaskWhoseTimerIsOff) {
    auto t = timerTask("dead");
    t->scheduleTaskDelay(1.0);
    t = nullptr;
    EXPECT_EQ(0x01u, root->deadTaskStats("dead")->taskStatus().value());
    timePasses(2.0);
    EXPECT_EQ(0u, root->timerWheel()->armed());
}

/// The steps, 0 to 100, that a jitter of 20 per cent makes of 10 seconds.
template <class Jitter> std::array<int, 101> stepsOf(TimerTask& t, Jitter jitter) {
    std::array<int, 101> counts{};
    for (int draw = 0; draw < 20200; ++draw) {
        jitter(t);
        double const step = std::abs(t.timer()->timeMin() - Mox::now() - 10.0) / 0.02;
        EXPECT_NEAR(std::round(step), step, 1e-6);
        counts.at(static_cast<std::size_t>(std::round(step))) += 1;
    }
    return counts;
}

// 200 draws a step are expected, with a deviation of 14; the bounds are 7 of them.
TEST_F(TimerTaskTest, JitterIsUniformOverAllItsSteps) {
    auto const t = timerTask();
    for (auto const& counts : {stepsOf(*t, [](TimerTask& timer) { timer.scheduleTaskJitterUp(10.0, 20); }),
                               stepsOf(*t, [](TimerTask& timer) { timer.scheduleTaskJitterDown(10.0, 20); })})
        EXPECT_THAT(counts, testing::Each(testing::AllOf(testing::Gt(100), testing::Lt(300))));
    for (int draw = 0; draw < 1000; ++draw) {
        t->scheduleTaskJitterUp(10.0, 20);
        ASSERT_GE(t->timer()->timeMin(), 110.0);
        t->scheduleTaskJitterDown(10.0, 20);
        ASSERT_LE(t->timer()->timeMin(), 110.0);
    }
}

TEST_F(TimerTaskTest, JitterUpMayMoreThanDoubleTheDelay) {
    auto const t = timerTask();
    Seconds latest = 0.0;
    for (int draw = 0; draw < 2000; ++draw) {
        t->scheduleTaskJitterUp(10.0, 255);
        latest = std::max(latest, t->timer()->timeMin() - 100.0);
    }
    EXPECT_GT(latest, 34.0);
    EXPECT_LE(latest, 35.5);
}

TEST_F(TimerTaskTest, JitterDownByAllOfAnyDelayIsNeverNegative) {
    auto const t = timerTask();
    int scheduledAtOnce = 0;
    for (int millisecond = 1; millisecond <= 10000; ++millisecond)
        for (int draw = 0; draw < 5; ++draw) {
            t->scheduleTaskJitterDown(millisecond / 1000.0, 100);
            ASSERT_LE(t->currentExpirationTime(), 100.0 + std::max(millisecond, 10) / 1000.0);
            scheduledAtOnce += t->taskRunQueueLink().isLinked() ? 1 : 0;
        }
    EXPECT_GT(scheduledAtOnce, 300) << "495 expected: all of the delay";
}

TEST_F(TimerTaskTest, JitterTakesAnInfinitelyNegativeDelay) {
    auto const t = timerTask();
    for (int percentage : {0, 20, 255})
        for (int draw = 0; draw < 1000; ++draw) {
            t->scheduleTaskJitterUp(-endOfTime, static_cast<Mox::U8>(percentage));
            ASSERT_EQ(100.01, t->timer()->timeMin());
        }
}

TEST_F(TimerTaskTest, TracesWhatItDoes) {
    auto const t = timerTask();
    std::string const at = " root:'normal':t@";
    TestSupport::TraceLog traces({8});
    struct {
        std::function<void()> act;
        std::string text;
    } const cases[] = {
        {[&] { t->scheduleTaskDelay(0.004); },
         "8 Task scheduleTaskDelayedPrivate: Timer started" + at + " delay 0.01"},
        {[&] { t->scheduleTaskDelay(2.0); },
         "8 Task scheduleTaskDelayedPrivate: Timer started" + at + " delay 2"},
        {[&] { t->scheduleTaskLowestDelay(5.5); },
         "8 Task scheduleTaskDelayedPrivate: Timer already running" + at + " expire 102 < 105.5"},
        {[&] { t->stopTimerTask(); }, "8 Task stopTimerTask: Timer stopped" + at + ", was running"},
        {[&] { t->stopTimerTask(); }, "8 Task stopTimerTask: Timer stopped" + at + ", was not running"},
        {[&] { t->scheduleTaskJitterUp(3.0, 0); },
         "8 Task scheduleTaskJitterUp: Timer jitterUp" + at + " delay 3 + 0 = 3"},
        {[&] { t->scheduleTaskJitterDown(3.0, 0); },
         "8 Task scheduleTaskJitterDown: Timer jitterDown" + at + " delay 3 - 0 = 3"},
        {[&] { t->scheduleTask(); }, "8 Task scheduleTask: Scheduled" + at},
        {[&] { t->scheduleTaskLowestDelay(1.0); },
         "8 Task scheduleTaskDelayedPrivate: Already on runQueue" + at},
    };
    for (auto const& c : cases) {
        c.act();
        EXPECT_EQ(c.text, traces.take().at(0));
    }
}

TEST_F(TimerTaskTest, MisuseEndsTheProcess) {
    auto const t = timerTask();
    auto const bare = Kel::TaskSchedulerRoot::TaskSchedulerRootIs("bare");
    struct {
        std::function<void()> act;
        char const* text;
    } const cases[] = {
        {[&] { t->scheduleTaskDelay(nan); }, "!std::isnan( delayIntoFuture ), source Task"},
        {[&] { t->scheduleTaskLowestDelay(nan); }, "!std::isnan( delayIntoFuture ), source Task"},
        {[&] { t->scheduleTaskJitterUp(nan, 1); }, "!std::isnan( delayIntoFuture ), source Task"},
        {[&] { t->scheduleTaskJitterDown(nan, 1); }, "!std::isnan( delayIntoFuture ), source Task"},
        {[&] { t->scheduleTaskLowestDelay(endOfTime); },
         "delayIntoFuture != Mox::endOfTime, source Task, function scheduleTaskLowestDelay"},
        {[&] { t->scheduleTaskJitterDown(10.0, 101); }, "maxJitterPercentage <= 100, source Task"},
        {[&] { t->scheduleTaskJitterDown(-1.0, 10); }, "offset <= delayIntoFuture, source Task"},
        {[&] { TimerTask::TimerTaskIs(bare, TaskPriority::normal, "t"); },
         "__null != timerWheel, source Task"},
    };
    for (auto const& c : cases)
        EXPECT_DEATH(c.act(), HasSubstr(c.text));
}

} // namespace
