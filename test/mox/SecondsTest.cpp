#include <mox/Seconds.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

// The same on 32 and 64 bits: 0.29 × 1e9 is just below a whole number, which a wider register would keep.
TEST(ToNanoseconds, TruncatesAndSaturates) {
    constexpr Mox::S64 most = std::numeric_limits<Mox::S64>::max();
    constexpr Mox::S64 least = std::numeric_limits<Mox::S64>::min();
    struct {
        Mox::Seconds seconds;
        Mox::S64 nanoseconds;
    } const cases[] = {
        {0.02, 20'000'000},
        {0.29, 290'000'000},
        {1.9e-9, 1},
        {-1.9e-9, -1},
        {0.9e-9, 0},
        {-0.9e-9, 0},
        {9.2e9, 9'200'000'000'000'000'000},
        {9.3e9, most},
        {-9.3e9, least},
        {1e300, most},
        {-1e300, least},
        {Mox::endOfTime, most},
        {-Mox::endOfTime, least},
        {std::nextafter(9223372036.854775808, 0.0), 9223372036854774784},
        {9223372036.854775808, most},
    };
    for (auto const& c : cases)
        EXPECT_EQ(c.nanoseconds, Mox::toNanoseconds(c.seconds).count()) << c.seconds;
}

TEST(ToNanosecondsDeathTest, NaNIsAnAssertion) {
    EXPECT_DEATH(Mox::toNanoseconds(std::nan("")), "!std::isnan\\( seconds \\), source Seconds");
}

} // namespace
