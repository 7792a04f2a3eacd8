#include <mox/Seconds.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>

namespace {

// The same on 32 and 64 bits: 0.29 × 1e9 is just below a whole number, which a wider register would keep.
TEST(ToNanosecondsDeathTest, TruncatesAndSaturatesAndTakesNoNaN) {
    constexpr Mox::S64 most = std::numeric_limits<Mox::S64>::max();
    std::pair<Mox::Seconds, Mox::S64> const cases[] = {
        {0.29, 290'000'000},          {-1.9e-9, -1},
        {-Mox::endOfTime, -most - 1}, {std::nextafter(9223372036.854775808, 0.0), 9223372036854774784},
        {9223372036.854775808, most},
    };
    for (auto const& [seconds, nanoseconds] : cases)
        EXPECT_EQ(nanoseconds, Mox::toNanoseconds(seconds).count()) << seconds;
    EXPECT_DEATH(Mox::toNanoseconds(std::nan("")), "!std::isnan\\( seconds \\), source Seconds");
}

} // namespace
