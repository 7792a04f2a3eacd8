#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>

namespace Mox {

/// The time of another clock, in nanoseconds, told from a counter that goes evenly.
///
/// Both are read together now and then. The counter's rate follows from two such pairs that lie half a second
/// or more apart, ten milliseconds in the beginning; each pair is also where the scale begins anew, and it is
/// good for a millisecond from then on. So the rate's error comes to nanoseconds, and a clock whose own rate
/// is corrected, which the system does by half a thousandth at most, is followed within a microsecond.
///
/// The scale never goes back: where it is ahead of the clock it is slowed down until both meet.
///
/// The counter is not to be trusted once a pair lies more than 10 microseconds, and a thousandth of the time
/// since the last one, from where the rate expects it: it was set or stood still, or it is another core's.
class MOX_EXPORT CounterScale {
  public:
    /// Readings of both. The clock was read between two readings of the counter, so many ticks apart.
    struct Pair {
        U64 ticks = 0;
        S64 time = 0;
        U64 within = 0;
    };
    enum class State : U8 {
        learning, ///< the rate is not known yet
        unsure,   ///< the thread was interrupted between the readings: the pair is of no use
        known,    ///< the scale begins at the pair
        departed  ///< the counter is not to be trusted
    };

    static constexpr U64 withinMost = 5000;       // ticks, of a nanosecond at most
    static constexpr S64 goodFor = 1'000'000;     // nanoseconds from a pair on
    static constexpr S64 departure = 10'000;      // nanoseconds
    static constexpr S64 departurePerTime = 1000; // one nanosecond more in so many

    /// Whether `at()` may be asked.
    bool covers(U64 ticks) const { return ticks - begin_.ticks < span_; }
    /// Requires: `covers(ticks)`.
    S64 at(U64 ticks) const {
        U64 const since = static_cast<U32>(ticks - begin_.ticks);
        return begin_.time + static_cast<S64>(since * rate_ >> rateBits);
    }

    /// Covers nothing until it is bound again.
    void end() { span_ = 0; }
    /// Begins anew at that pair, the next one in time. `latest` is the greatest time that was told so far.
    State bind(Pair const& pair, S64 latest);

  private:
    static constexpr unsigned rateBits = 32;

    bool isExpected(Pair const& pair) const;
    void measureRate(Pair const& pair);

    Pair begin_;
    U64 span_ = 0; // ticks; 0: covers nothing
    U32 rate_ = 0; // nanoseconds a tick, times 2^32

    Pair last_;
    Pair measuredFrom_, measuredFromNext_;
    double nanoseconds_ = 0; // a tick; 0: not known
};

} // namespace Mox
