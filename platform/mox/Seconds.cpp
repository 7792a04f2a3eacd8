#define MOX_SOURCE_NAME "Seconds"
#include <mox/Seconds.h>

#include <mox/Assert.h>

#include <cmath>

Mox::Nanoseconds Mox::toNanoseconds(Seconds seconds) {
    MOX_ASSERT_AS("!std::isnan( seconds )", !std::isnan(seconds));
    // 2^63 is a double, the largest signed 64-bit number is not: compare against the former.
    constexpr double beyond = 9223372036854775808.0;
    double const count = seconds * 1e9;
    if (count >= beyond)
        return Nanoseconds::max();
    if (count < -beyond)
        return Nanoseconds::min();
    return Nanoseconds(static_cast<S64>(count));
}
