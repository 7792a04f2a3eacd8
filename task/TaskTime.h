#pragma once

#include <mox/Seconds.h>
#include <mox/SteadyClock.h>
#include <mox/Strep.h>

namespace Kel {

/// A point of the steady clock, in signed 64-bit nanoseconds; for run bookkeeping and the history. Never
/// compared with Mox::Seconds, whose clock is another.
using TaskTimeStamp = Mox::SteadyClock::TimePoint;
/// Signed 64-bit nanoseconds.
using TaskTimeDuration = Mox::Nanoseconds;

// Wrapping where signed arithmetic would be undefined: stamps and sums may be set by hand.

/// later - earlier.
constexpr TaskTimeDuration elapsed(TaskTimeStamp const& earlier, TaskTimeStamp const& later) {
    auto const from = static_cast<Mox::U64>(earlier.time_since_epoch().count());
    auto const to = static_cast<Mox::U64>(later.time_since_epoch().count());
    return TaskTimeDuration(static_cast<Mox::S64>(to - from));
}

constexpr TaskTimeDuration sum(TaskTimeDuration const& a, TaskTimeDuration const& b) {
    return TaskTimeDuration(
        static_cast<Mox::S64>(static_cast<Mox::U64>(a.count()) + static_cast<Mox::U64>(b.count())));
}

} // namespace Kel

namespace Mox {

template <> inline std::string typeNameOf<Kel::TaskTimeStamp>() { return "Kel::TaskTimeStamp"; }
template <> inline std::string typeNameOf<Kel::TaskTimeDuration>() { return "Kel::TaskTimeDuration"; }

} // namespace Mox
