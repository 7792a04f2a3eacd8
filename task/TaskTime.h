#pragma once

#include <mox/Seconds.h>
#include <mox/SteadyClock.h>

namespace Kel {

/// A point of the steady clock, in signed 64-bit nanoseconds; for run bookkeeping and the history. Never
/// compared with Mox::Seconds, whose clock is another.
using TaskTimeStamp = Mox::SteadyClock::TimePoint;
/// Signed 64-bit nanoseconds.
using TaskTimeDuration = Mox::Nanoseconds;

} // namespace Kel
