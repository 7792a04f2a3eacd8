#pragma once

#include <mox/Seconds.h>
#include <mox/SteadyClock.h>

namespace Kel {

/// A point of the steady clock, in signed 64-bit nanoseconds; for run bookkeeping and the history. Never
/// compared with Mox::Seconds, whose clock is another.
using TaskTimeStamp = Mox::SteadyClock::TimePoint;
/// Signed 64-bit nanoseconds.
using TaskTimeDuration = Mox::Nanoseconds;

/// later - earlier; wraps where signed subtraction would be undefined, as with stamps that were set by hand.
constexpr TaskTimeDuration elapsed(TaskTimeStamp const& earlier, TaskTimeStamp const& later) {
    auto const from = static_cast<Mox::U64>(earlier.time_since_epoch().count());
    auto const to = static_cast<Mox::U64>(later.time_since_epoch().count());
    return TaskTimeDuration(static_cast<Mox::S64>(to - from));
}

} // namespace Kel
