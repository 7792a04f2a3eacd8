#include <task/PeriodicTask.h>

#include <mox/Exception.h>
#include <scheduler/TaskSchedulerMoxActivity.h>
#include <support/HandRoot.h>
#include <support/Play.h>

#include <gmock/gmock.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>

namespace {

using namespace TestSupport;
using testing::DoubleEq;

/// Virtual time that a test moves; a run takes place when the test says so.
struct PeriodicTaskTest : HandTreeTest {
    Ptr<PeriodicTask> every(Seconds period) {
        return PeriodicTask::PeriodicTaskIs(root, TaskPriority::normal, "periodic", period,
                                            [this] { runs.push_back(now() - origin); });
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
    /// Time goes on in ticks to so long after the start, and what is due runs.
    void goOnTo(Seconds offset) {
        for (long tick = std::lround(now() * 100) + 1; tick <= std::lround((origin + offset) * 100); ++tick)
            timeIs(static_cast<Seconds>(tick) / 100);
    }
    void perform(PeriodicTask& periodic, std::string const& operation, Seconds with) {
        std::map<std::string, std::function<void()>> const operations = {
            {"to", [&] { goOnTo(with); }},
            {"held", [&] { heldFor(with); }},
            {"waits", [&] { timePasses(with); }},
            {"runs", [&] { root->runUntilIdle(); }},
            {"start", [&] { with < 0 ? periodic.start() : periodic.start(with); }},
            {"period", [&] { periodic.periodIs(with); }},
            {"stop", [&] { periodic.stop(); }},
            {"schedule", [&] { periodic.task()->scheduleTask(); }},
            {"runFromTest", [&] { periodic.task()->taskRunFromTest(); }},
        };
        operations.at(operation)();
    }

    Seconds origin = 100.0;
    std::vector<Seconds> runs;
};

TEST_F(PeriodicTaskTest, KeepsItsDueTimesWhateverHappensInBetween) {
    struct {
        char const *what, *operations;
        std::vector<Seconds> runs;
        Seconds nextDue = endOfTime;
        U64 missed = 0;
    } const rows[] = {
        {"late", "start:-1 to:0.9 held:0.5 to:2.9 held:3.3 to:8", {1.4, 2.0, 6.2, 7.0, 8.0}, 9.0, 3},
        {"nearly a period late", "start:-1 held:1.99 to:2", {1.99, 2.0}, 3.0},
        {"a period late", "start:-1 held:2 to:2.99", {2.0}, 3.0, 1},
        {"on time", "start:-1 to:0.99 stop to:2 start:-1 to:3", {3.0}, 4.0},
        {"runs in between",
         "start:0 runs to:0.5 schedule runs to:1.2 runFromTest to:2.4",
         {0, 0.5, 1, 1.2, 2},
         3.0},
        {"stopped and started anew", "start:2 stop to:5 start:0.25 to:6.3 schedule stop to:9", {5.25, 6.25}},
        // 11 to 14 are past, and not missed; however often the period is set, it runs; the run that waits is
        // not lost
        {"other periods",
         "period:10 start:-1 to:14.5 period:1 to:16.2 period:2 to:17 period:2 to:17.9 waits:0.2 period:1 "
         "runs to:19",
         {10.0, 15.0, 16.0, 18.1, 19.0},
         20.0},
        {"another period before the first run", "start:5 period:3 to:8", {5.0, 8.0}, 11.0},
        {"another period when it is due", "start:-1 to:1 period:2 to:2.99", {1.0}, 3.0},
        {"another period while it is stopped", "period:2 to:9", {}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        timers.clock->nowIs(origin += 100.0), runs.clear();
        auto const periodic = every(1.0);
        play(row.operations, [&](auto const&... o) { perform(*periodic, o...); });
        EXPECT_THAT(runs, testing::Pointwise(testing::DoubleNear(1e-9), row.runs));
        EXPECT_THAT(periodic->nextDue(), DoubleEq(origin + row.nextDue));
        EXPECT_EQ(row.missed, periodic->missed());
    }
}

TEST(PeriodicTaskVirtualTest, TenthsOfASecondNeitherDriftNorMiss) {
    VirtualTime const time(true);
    auto const root = TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");
    U64 runs = 0;
    Seconds latest = 0.0;
    auto const periodic = PeriodicTask::PeriodicTaskIs(root, TaskPriority::low, "tenth", 0.1, [&] {
        ++runs;
        latest = std::max(latest, now() - static_cast<Seconds>(runs) * 0.1);
        ASSERT_GE(now(), static_cast<Seconds>(runs) * 0.1); // never early
    });
    periodic->start();
    time.manager->runUntil(3600.005);
    EXPECT_EQ(36000u, runs);
    EXPECT_EQ(0u, periodic->missed());
    EXPECT_LT(latest, 0.0101);
}

TEST_F(PeriodicTaskTest, ShortestPeriodMissesNothingHoweverItsTimesLieBetweenTicks) {
    Seconds start = origin;
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

TEST_F(PeriodicTaskTest, IsNotEarlyByRounding) {
    timers.clock->nowIs(0.83);
    for (int i = 0; i < 1000; ++i) {
        auto const periodic = every(1.2999 * now());
        periodic->start();
        timers.clock->nowIs(1.0137 * now());
        periodic->task()->taskRunFromTest(); // in between
        ASSERT_GE(periodic->task()->timer()->timeMin(), periodic->nextDue());
    }
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
    for (Seconds period : {0.0, 0.0199, nan, endOfTime}) {
        EXPECT_THROW(every(period), RangeException) << period;
        EXPECT_THROW(periodic->periodIs(period), RangeException) << period;
    }
    for (Seconds delay : {-0.01, nan, endOfTime})
        EXPECT_THROW(periodic->start(delay), RangeException) << delay;
    EXPECT_FALSE(periodic->started());
}

} // namespace
