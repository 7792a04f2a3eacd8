#include <task/PeriodicTask.h>

#include <mox/Exception.h>
#include <scheduler/TaskSchedulerMoxActivity.h>
#include <support/HandRoot.h>

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

namespace {

using Kel::PeriodicTask;
using Kel::TaskPriority;
using Mox::Ptr;
using Mox::Seconds;
using testing::DoubleEq;

/// Virtual time that a test moves; a run takes place when the test says so.
struct PeriodicTaskTest : TestSupport::HandTreeTest {
    PeriodicTaskTest() { timers.clock->nowIs(100.0); }

    Ptr<PeriodicTask> every(Seconds period) {
        return PeriodicTask::PeriodicTaskIs(root, TaskPriority::normal, "periodic", period,
                                            [this] { runs.push_back(Mox::now() - 100.0); });
    }
    /// Time goes on in ticks to so long after the start, and what is due runs.
    void goOnTo(Seconds offset) {
        for (long tick = std::lround(Mox::now() * 100) + 1; tick <= std::lround((100.0 + offset) * 100);
             ++tick)
            timeIs(static_cast<Seconds>(tick) / 100);
    }
    void timeIs(Seconds time) {
        timers.clock->nowIs(time);
        timers.manager->runOnce();
        root->runUntilIdle();
    }
    /// Time passes while something else holds the thread.
    void heldFor(Seconds duration) {
        timePasses(duration);
        root->runUntilIdle();
    }
    void expectRuns(std::vector<Seconds> const& expected) {
        EXPECT_THAT(runs, testing::Pointwise(testing::DoubleNear(1e-9), expected));
    }

    std::vector<Seconds> runs;
};

TEST_F(PeriodicTaskTest, LateRunDelaysNoLaterOneAndSkipsWhatItMissed) {
    auto const periodic = every(1.0);
    periodic->start();
    goOnTo(0.9);
    heldFor(0.5); // a bit late
    goOnTo(2.9);
    heldFor(3.3); // those due at 3, 4, 5 and 6 are one
    goOnTo(8.0);
    expectRuns({1.4, 2.0, 6.2, 7.0, 8.0});
    EXPECT_EQ(3u, periodic->missed());
    EXPECT_THAT(periodic->nextDue(), DoubleEq(109.0));
}

TEST(PeriodicTaskVirtualTest, TenthsOfASecondNeitherDriftNorMiss) {
    TestSupport::VirtualTime const time(true);
    auto const root = Kel::TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");
    Mox::U64 runs = 0;
    Seconds latest = 0.0;
    auto const periodic = PeriodicTask::PeriodicTaskIs(root, TaskPriority::low, "tenth", 0.1, [&] {
        ++runs;
        latest = std::max(latest, Mox::now() - static_cast<Seconds>(runs) * 0.1);
        ASSERT_GE(Mox::now(), static_cast<Seconds>(runs) * 0.1); // never early
    });
    periodic->start();
    time.manager->runUntil(3600.005);
    EXPECT_EQ(36000u, runs);
    EXPECT_EQ(0u, periodic->missed());
    EXPECT_LT(latest, 0.0101);
}

TEST_F(PeriodicTaskTest, ShortestPeriodMissesNothingHoweverItsTimesLieBetweenTicks) {
    Seconds start = 100.0;
    for (Seconds offset : {0.0, 0.003, 0.0099}) {
        timeIs(start += offset);
        auto const periodic = every(PeriodicTask::periodMin);
        periodic->start();
        for (int tick = 0; tick < 1000; ++tick)
            timeIs(start += tick % 3 ? 0.0098 : 0.0104); // the loop's own jitter
        EXPECT_EQ(0u, periodic->missed());
        EXPECT_NEAR(500.0, static_cast<double>(periodic->task()->taskRun()), 1.0);
    }
}

TEST_F(PeriodicTaskTest, RunsInBetweenMoveNoDueTimeAndItStopsAndStartsAnew) {
    auto const periodic = every(1.0);
    EXPECT_EQ(Mox::endOfTime, periodic->nextDue());
    periodic->start(0.0);
    root->runUntilIdle();
    goOnTo(0.5);
    periodic->task()->scheduleTask();
    root->runUntilIdle();
    goOnTo(1.2);
    periodic->task()->taskRunFromTest();
    goOnTo(2.4);
    periodic->stop();
    goOnTo(5.0);
    periodic->start(0.25);
    goOnTo(6.3);
    periodic->task()->scheduleTask(); // a run that waits is stopped, too
    periodic->stop();
    goOnTo(9.0);
    expectRuns({0.0, 0.5, 1.0, 1.2, 2.0, 5.25, 6.25});
    EXPECT_EQ(0u, periodic->missed());
}

TEST_F(PeriodicTaskTest, NewPeriodCountsFromTheLatestDueTime) {
    auto const periodic = every(10.0);
    periodic->start();
    goOnTo(14.5);
    periodic->periodIs(1.0); // 11 to 14 are past, and not missed
    goOnTo(16.2);
    periodic->periodIs(2.0);
    goOnTo(17.0);
    periodic->periodIs(2.0); // however often it is set, it runs
    goOnTo(17.9);
    timePasses(0.2);
    periodic->periodIs(1.0); // the run that waits is not lost
    root->runUntilIdle();
    goOnTo(19.0);
    expectRuns({10.0, 15.0, 16.0, 18.1, 19.0});
    EXPECT_EQ(0u, periodic->missed());

    periodic->start(5.0);
    periodic->periodIs(3.0); // the first run stays due
    runs.clear();
    goOnTo(27.0);
    expectRuns({24.0, 27.0});
}

TEST_F(PeriodicTaskTest, FunctionMayThrowStopOrDestroyIt) {
    Ptr<PeriodicTask> periodic;
    int calls = 0;
    auto const callsWhenItDoes = [&](std::function<void()> what) {
        calls = 0;
        periodic = PeriodicTask::PeriodicTaskIs(root, TaskPriority::normal, "p", 1.0, [&, what] {
            ++calls;
            what();
        });
        periodic->start();
        for (int second = 0; second < 3; ++second)
            heldFor(1.0);
        return calls;
    };
    EXPECT_EQ(3, callsWhenItDoes([] { throw std::runtime_error("tried"); }));
    EXPECT_EQ(1, callsWhenItDoes([&] { periodic->stop(); }));
    EXPECT_EQ(1, callsWhenItDoes([&] { periodic = nullptr; }));
}

TEST_F(PeriodicTaskTest, RefusesTimesThatItCannotKeep) {
    auto const periodic = every(1.0);
    constexpr Seconds nan = std::numeric_limits<Seconds>::quiet_NaN();
    for (Seconds period : {0.0, 0.0199, nan, Mox::endOfTime}) {
        EXPECT_THROW(every(period), Mox::RangeException) << period;
        EXPECT_THROW(periodic->periodIs(period), Mox::RangeException) << period;
    }
    for (Seconds delay : {-0.01, nan, Mox::endOfTime})
        EXPECT_THROW(periodic->start(delay), Mox::RangeException) << delay;
    EXPECT_FALSE(periodic->started());
}

} // namespace
