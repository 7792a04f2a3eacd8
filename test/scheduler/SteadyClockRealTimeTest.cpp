#include <mox/SteadyClock.h>

#include <gtest/gtest.h>

namespace {

using namespace Mox;

} // namespace

TEST(SteadyClockRealTime, IsTheSameTimeFromEitherSource) {
    using Clock = SteadyClock;
    constexpr auto bound = boost::chrono::microseconds(20);
    Problem const problem = Clock::sourceIs(Clock::Source::counter);
    EXPECT_EQ(Clock::source(), problem.empty() ? Clock::Source::counter : Clock::Source::posix);
    if (!problem.empty())
        GTEST_SKIP() << problem; // as under sanitizers, which interpose the clock
    for (bool const isFast : {true, false}) {
        auto latest = Clock::now();
        for (int i = 0; i < 300'000; ++i) {
            auto const before = boost::chrono::steady_clock::now();
            auto const reading = Clock::now();
            auto const behind = boost::chrono::steady_clock::now();
            ASSERT_LE(latest, reading);
            ASSERT_TRUE(before - bound < reading && reading < behind + bound);
            latest = reading;
        }
        EXPECT_EQ(Clock::latest(), latest);
        EXPECT_EQ(isFast ? Clock::sourceIs(Clock::Source::posix) : "", "");
        EXPECT_EQ(Clock::source(), Clock::Source::posix);
    }
}
