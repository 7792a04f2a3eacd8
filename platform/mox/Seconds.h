#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>

#include <boost/chrono/duration.hpp>

#include <limits>

namespace Mox {

/// The framework's time: seconds, as a double.
using Seconds = double;

/// "Never", for timers.
inline constexpr Seconds endOfTime = std::numeric_limits<Seconds>::infinity();

using Nanoseconds = boost::chrono::nanoseconds;

/// Seconds × 1e9, truncated towards zero, clamped to the signed 64-bit range.
/// Requires: not a NaN ("!std::isnan( seconds )").
MOX_EXPORT Nanoseconds toNanoseconds(Seconds seconds);

inline constexpr Seconds toSeconds(Nanoseconds duration) {
    return static_cast<Seconds>(duration.count()) / 1e9;
}

/// The time now by the clock of the calling thread's activity manager.
MOX_EXPORT Seconds now();

} // namespace Mox
