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

void delay2(TimerTask& t) { t.scheduleTaskDelay(2); }

struct TimerTaskTest : TestSupport::HandTreeTest {
    TimerTaskTest() { timePasses(100.0); } // Mox::now() is 100
};

TEST_F(TimerTaskTest, KeepsOrReplacesWhatWasPending) {
    constexpr Seconds queued = 0.0; // on the run queue, the timer off
    constexpr Seconds idle = endOfTime;
    using T = TimerTask&;
    struct {
        void (*act)(T);
        Seconds expiry; // from now
        std::string events;
    } const cases[] = {
        {[](T t) { t.scheduleTaskDelay(0); }, queued, "schedule busy"},
        {[](T t) { t.scheduleTaskLowestDelay(0); }, queued, "schedule busy"},
        {[](T t) { t.scheduleTaskJitterUp(0, 50); }, queued, "schedule busy"},
        {[](T t) { t.scheduleTaskDelay(0.004); }, 0.01, "timerStart busy"},
        {[](T t) { t.scheduleTaskDelay(0.00999); }, 0.01, "timerStart busy"},
        {[](T t) { t.scheduleTaskDelay(0.011); }, 0.011, "timerStart busy"},
        {[](T t) { t.scheduleTaskDelay(-5); }, 0.01, "timerStart busy"},
        {[](T t) { t.scheduleTaskDelay(-endOfTime); }, 0.01, "timerStart busy"},
        {[](T t) { t.scheduleTaskLowestDelay(-endOfTime); }, 0.01, "timerStart busy"},
        {[](T t) { t.scheduleTaskJitterUp(-5, 50); }, 0.01, "timerStart busy"},
        {[](T t) { t.scheduleTaskDelay(huge); }, huge, "timerStart busy"},
        {[](T t) { t.scheduleTaskJitterUp(huge, 255); }, huge, "timerStart busy"},
        {[](T t) { t.scheduleTaskDelay(endOfTime); }, idle, ""},
        {[](T t) { delay2(t), t.scheduleTaskDelay(5); }, 5, "timerStart busy timerStart"},
        {[](T t) { delay2(t), t.scheduleTaskLowestDelay(5); }, 2, "timerStart busy"},
        {[](T t) { delay2(t), t.scheduleTaskLowestDelay(1); }, 1, "timerStart busy timerStart"},
        {[](T t) { delay2(t), t.scheduleTask(); }, queued, "timerStart busy schedule"},
        {[](T t) { delay2(t), t.scheduleTaskDelay(0); }, queued, "timerStart busy schedule"},
        {[](T t) { delay2(t), t.unscheduleTask(); }, 2, "timerStart busy"},
        {[](T t) { t.scheduleTask(), t.scheduleTaskLowestDelay(1); }, queued, "schedule busy"},
        {[](T t) { t.scheduleTask(), t.scheduleTaskDelay(5); }, 5, "schedule busy unschedule timerStart"},
        {[](T t) { t.scheduleTask(), t.stopTimerTask(); }, idle, "schedule busy unschedule idle"},
        {[](T t) { delay2(t), t.stopTimerTask(); }, idle, "timerStart busy timerStop idle"},
        {[](T t) { delay2(t), t.scheduleTaskDelay(endOfTime); }, idle, "timerStart busy timerStop idle"},
        {[](T t) { delay2(t), t.scheduleTaskJitterUp(endOfTime, 10); }, idle,
         "timerStart busy timerStop idle"},
        {[](T t) { delay2(t), t.scheduleTaskJitterDown(endOfTime, 101); }, idle,
         "timerStart busy timerStop idle"},
        {[](T t) { delay2(t), t.taskRunFromTest(); }, idle, "timerStart busy run start run end idle"},
        {[](T t) { t.stopTimerTask(); }, idle, ""},
    };
    root->schedulerHasRunnableTasksIs(true); // no events of the scheduler in between
    for (auto const& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        auto const t = timerTask();
        root->clearHistory();
        c.act(*t);
        std::string events;
        for (std::string const& event : root->takeHistory())
            events += (events.empty() ? "" : " ") + event.substr(0, event.find_last_not_of(' ', 10) + 1);
        EXPECT_EQ(c.events, events);
        Seconds const armedFor = c.expiry == queued ? endOfTime : c.expiry;
        EXPECT_EQ(armedFor + 100.0, t->timer()->timeMin());
        EXPECT_EQ(c.expiry + 100.0, t->currentExpirationTime());
        EXPECT_EQ(c.expiry == queued, t->taskRunQueueLink().isLinked());
        EXPECT_EQ(c.expiry != idle, t->taskScheduled());
        EXPECT_EQ(c.expiry != idle, t->taskBusy());
        EXPECT_EQ(1u | (armedFor != endOfTime ? 2u : 0u) | (c.expiry == queued ? 4u : 0u),
                  t->taskStatus().value());
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
    EXPECT_EQ(0x13u, t->taskStatus().value());
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

// 200 draws a step are expected, with a deviation of 14; the bounds are 7 of them.
TEST_F(TimerTaskTest, JitterIsUniformOverAllItsSteps) {
    struct {
        void (*jitter)(TimerTask&);
        Seconds span; // of 101 steps
    } const cases[] = {
        {[](TimerTask& t) { t.scheduleTaskJitterUp(10, 20); }, 2.0},
        {[](TimerTask& t) { t.scheduleTaskJitterUp(10, 255); }, 25.5},
        {[](TimerTask& t) { t.scheduleTaskJitterDown(10, 20); }, -2.0},
    };
    auto const t = timerTask();
    for (auto const& c : cases) {
        std::array<int, 101> counts{};
        for (int draw = 0; draw < 20200; ++draw) {
            c.jitter(*t);
            double const step = (t->timer()->timeMin() - 110.0) / c.span * 100;
            ASSERT_NEAR(std::round(step), step, 1e-6);
            counts.at(static_cast<std::size_t>(std::round(step))) += 1;
        }
        EXPECT_THAT(counts, testing::Each(testing::AllOf(testing::Gt(100), testing::Lt(300))));
    }
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
    root->schedulerHasRunnableTasksIs(true);
    TestSupport::TraceLog traces({8});
    t->scheduleTaskDelay(0.004);
    t->scheduleTaskDelay(2.0);
    t->scheduleTaskLowestDelay(5.5);
    t->stopTimerTask();
    t->stopTimerTask();
    t->scheduleTaskJitterUp(3.0, 0);
    t->scheduleTaskJitterDown(3.0, 0);
    t->scheduleTask();
    t->scheduleTaskLowestDelay(1.0);
    EXPECT_EQ(R"(8 Task scheduleTaskDelayedPrivate: Timer started root:'normal':t@ delay 0.01
8 Task scheduleTaskDelayedPrivate: Timer started root:'normal':t@ delay 2
8 Task scheduleTaskDelayedPrivate: Timer already running root:'normal':t@ expire 102 < 105.5
8 Task stopTimerTask: Timer stopped root:'normal':t@, was running
8 Task stopTimerTask: Timer stopped root:'normal':t@, was not running
8 Task scheduleTaskJitterUp: Timer jitterUp root:'normal':t@ delay 3 + 0 = 3
8 Task scheduleTaskDelayedPrivate: Timer started root:'normal':t@ delay 3
8 Task scheduleTaskJitterDown: Timer jitterDown root:'normal':t@ delay 3 - 0 = 3
8 Task scheduleTaskDelayedPrivate: Timer started root:'normal':t@ delay 3
8 Task scheduleTask: Scheduled root:'normal':t@
8 Task scheduleTaskDelayedPrivate: Already on runQueue root:'normal':t@
)",
              traces.take());
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
