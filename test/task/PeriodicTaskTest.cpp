#include <task/PeriodicTask.h>

#include <mox/Exception.h>

#include <support/HandRoot.h>
#include <support/Random.h>

#include <limits>

namespace {

using namespace TestSupport;

/// Virtual time that a test moves; a run takes place when the test says so.
struct PeriodicTaskTest : HandTreeTest {
    Ptr<PeriodicTask> every(Seconds period, std::function<void()> function) {
        return PeriodicTask::PeriodicTaskIs(root, TaskPriority::normal, "periodic", period, function);
    }
    void timePassesAndRuns(Seconds seconds) {
        timePasses(seconds);
        root->runUntilIdle();
    }
};

/// What is due when, taken on period by period. Nothing is due while it is stopped.
struct PeriodicModel {
    Seconds period = 1.0, due = endOfTime;
    bool isFirst = false;
    U64 missed = 0, runs = 0;

    bool skipMissed() {
        for (; due + period <= now(); due += period)
            ++missed;
        return due <= now();
    }
    void run() {
        ++runs;
        if (skipMissed())
            due += period, isFirst = false;
    }
    /// The run that waits is not lost, and what is past by the new period alone is not missed.
    void periodIs(Seconds newPeriod) {
        isFirst = skipMissed() || isFirst;
        for (due -= isFirst ? 0.0 : period; !isFirst && due <= now();)
            due += newPeriod;
        period = newPeriod;
    }
};

// All times are quarters of a second, which doubles and ticks hold exactly.
TEST_F(PeriodicTaskTest, KeepsItsDueTimesWhateverHappensInBetween) {
    Random random;
    PeriodicModel model;
    U64 runs = 0;
    Seconds some = 0.0;
    auto const periodic = every(model.period, [&] { ++runs; });
    std::function<void()> const changes[] = {
        [&] { timePasses(some); },
        [&] { model.due <= now() ? model.run() : void(), root->runUntilIdle(); },
        [&] { model.due = now() + some, model.isFirst = true, periodic->start(some); },
        [&] { model.due = now() + model.period, model.isFirst = false, periodic->start(); },
        [&] { model.due = endOfTime, periodic->stop(); },
        [&] { model.periodIs(some + 0.25), periodic->periodIs(some + 0.25); },
        [&] { model.run(), periodic->task()->taskRunFromTest(); },
    };
    for (std::size_t left = operations(100'000); left > 0 && !HasFailure(); --left) {
        some = static_cast<Seconds>(random.below(12)) / 4;
        std::size_t const what = random.below(random.oneIn(2) ? 2 : std::size(changes));
        random.doing("change " + std::to_string(what) + " by", some);
        changes[what]();
        EXPECT_EQ(std::tuple(model.runs, model.due, model.missed),
                  std::tuple(runs, periodic->nextDue(), periodic->missed()));
    }
}

TEST_F(PeriodicTaskTest, NeitherDriftsNorMissesThoughItsTimesLieBetweenTicks) {
    for (Seconds const period : {PeriodicTask::periodMin, 0.1}) {
        Seconds const start = now();
        U64 runs = 0;
        auto const periodic = every(period, [&] {
            Seconds const due = start + static_cast<Seconds>(++runs) * period;
            ASSERT_GE(now(), due);
            ASSERT_LT(now(), due + 0.015) << "a tick, and a turn of the loop";
        });
        periodic->start();
        for (int turn = 0; turn < 75'000; ++turn)
            timePassesAndRuns(turn % 2 ? 0.0049 : 0.0031);
        EXPECT_EQ(0u, periodic->missed());
        EXPECT_NEAR(300.0 / period, static_cast<double>(runs), 1.0);
    }
}

TEST_F(PeriodicTaskTest, IsNotEarlyByRounding) {
    timers.clock->nowIs(0.83);
    for (int i = 0; i < 1000; ++i) {
        auto const periodic = every(1.2999 * now(), {});
        periodic->start();
        timers.clock->nowIs(1.0137 * now());
        periodic->task()->taskRunFromTest(); // in between
        ASSERT_GE(periodic->task()->timer()->timeMin(), periodic->nextDue());
    }
}

TEST_F(PeriodicTaskTest, FunctionMayThrowStopOrDestroyIt) {
    Ptr<PeriodicTask> periodic;
    std::pair<std::function<void()>, int> const cases[] = {
        {[] { throw std::runtime_error("tried"); }, 3},
        {[&] { periodic->stop(); }, 1},
        {[&] { periodic = nullptr; }, 1},
    };
    for (auto const& [act, calls] : cases) {
        int called = 0;
        periodic = every(1.0, [&called, &act = act] { ++called, act(); });
        periodic->start();
        for (int second = 0; second < 3; ++second)
            timePassesAndRuns(1.0);
        EXPECT_EQ(calls, called);
    }
}

TEST_F(PeriodicTaskTest, RefusesTimesThatItCannotKeep) {
    auto const periodic = every(1.0, {});
    constexpr Seconds nan = std::numeric_limits<Seconds>::quiet_NaN();
    for (Seconds time : {-0.01, nan, endOfTime}) {
        EXPECT_THROW(every(time, {}), RangeException) << time;
        EXPECT_THROW(periodic->periodIs(time), RangeException) << time;
        EXPECT_THROW(periodic->start(time), RangeException) << time;
    }
    EXPECT_THROW(every(0.0199, {}), RangeException);
}

} // namespace
