#define MOX_SOURCE_NAME "Seconds"
#include <mox/Seconds.h>

#include <mox/Assert.h>

#include <cmath>

/// 2^63 is a double and the largest signed 64-bit number is not, so the bound is compared against the former;
/// minus 2^63 is both.
Mox::Nanoseconds Mox::toNanoseconds(Seconds seconds) {
    MOX_ASSERT_AS("!std::isnan( seconds )", !std::isnan(seconds));
    constexpr double beyond = 9223372036854775808.0;
    static_assert(static_cast<S64>(beyond / 2) == S64{1} << 62);
    double const count = seconds * 1e9;
    if (count >= beyond)
        return Nanoseconds::max();
    if (count < -beyond)
        return Nanoseconds::min();
    return Nanoseconds(static_cast<S64>(count));
}
