#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/Seconds.h>

#include <boost/chrono/system_clocks.hpp>

#include <type_traits>

namespace Mox {

/// The one place that reads the steady clock.
///
/// Each reading is kept as the thread's latest, so that a loop can tell from readings taken anyway how long
/// its work has lasted, and pays for none itself.
///
/// It is the ordinary monotonic POSIX clock: a program that interposes `clock_gettime` moves it.
class SteadyClock {
  public:
    using TimePoint = boost::chrono::steady_clock::time_point;

    static_assert(std::is_same_v<TimePoint::duration, Nanoseconds>,
                  "the latest reading is kept in nanoseconds");

    static TimePoint now() noexcept {
        TimePoint const reading = boost::chrono::steady_clock::now();
        latest_ = reading.time_since_epoch().count();
        return reading;
    }

    /// The calling thread's latest reading; the epoch when there was none.
    static TimePoint latest() noexcept { return TimePoint(Nanoseconds(latest_)); }

  private:
    MOX_EXPORT static constinit thread_local S64 latest_ MOX_FAST_TLS;
};

} // namespace Mox
