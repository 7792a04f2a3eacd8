#pragma once

#include <mox/CounterScale.h>
#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/Problem.h>
#include <mox/Seconds.h>

#include <boost/chrono/system_clocks.hpp>

#include <algorithm>
#include <atomic>
#include <type_traits>

namespace Mox {

/// The one place that reads the steady clock.
///
/// Each reading is kept as the thread's latest, so that a loop can tell from readings taken anyway how long
/// its work has lasted, and pays for none itself.
///
/// It is the ordinary monotonic POSIX clock: a program that interposes `clock_gettime` moves it. When that is
/// asked for, by `sourceIs()` or by KELTASK_CLOCK=fast in the environment, the processor's time-stamp counter
/// tells the same time in half the time of a call. Each thread binds the counter to the POSIX clock anew, at
/// the price of a reading of both, at its first reading after a loop of its own has asked the kernel for
/// anything or slept, at its first one in a millisecond, and at each one in its first ten milliseconds. So
/// its readings are comparable with other threads' and programs'; they never go back.
///
/// How far they may depart: by 10 microseconds and a thousandth of the time since the last binding
/// (CounterScale). At a binding that finds more the counter is given up, for good, with a line on the trace
/// handle "Mox" at level 0 when a loop next asks the kernel. Until that binding a counter that jumps is
/// believed for a millisecond ahead at most, and one that stands still for as long as nothing is bound: a
/// loop's budget of turns.
class SteadyClock {
  public:
    using TimePoint = boost::chrono::steady_clock::time_point;

    static_assert(std::is_same_v<TimePoint::duration, Nanoseconds>,
                  "the latest reading is kept in nanoseconds");

    enum class Source : U8 { posix, counter };

    /// Of all threads, from their next readings on. Returns why the counter is refused, and then nothing
    /// changes: the processor's counter is not invariant, the kernel does not list it among its clock sources
    /// (as it does not when it found it wrong), `clock_gettime` is interposed or takes too long to bind the
    /// counter to it, or the counter was given up before.
    [[nodiscard]] MOX_EXPORT static Problem sourceIs(Source source);
    static Source source() { return mode_ == Mode::counter ? Source::counter : Source::posix; }

    static TimePoint now() noexcept {
        Thread& thread = thread_;
        switch (mode_.load(std::memory_order_relaxed)) {
        case Mode::posix: thread.latest = posixNow(); break;
        case Mode::counter:
            if (U64 const ticks = counterNow(); thread.scale.covers(ticks)) {
                thread.latest = std::max(thread.latest, thread.scale.at(ticks));
                break;
            }
            [[fallthrough]];
        default: thread.latest = bound();
        }
        return TimePoint(Nanoseconds(thread.latest));
    }

    /// The calling thread asks the kernel, or may sleep: whatever happens to the counter meanwhile, its next
    /// reading goes by the POSIX clock. Traces that the counter was given up, which a reading has no place
    /// for: a sink is foreign code.
    static void bindAnew() noexcept {
        thread_.scale.end();
        if (mode_.load(std::memory_order_relaxed) == Mode::departing) [[unlikely]]
            tellDeparted();
    }

    /// The calling thread's latest reading; the epoch when there was none.
    static TimePoint latest() noexcept { return TimePoint(Nanoseconds(thread_.latest)); }

  private:
    friend struct SteadyClockGivesUp; // in a test

    enum class Mode : U8 {
        posix,
        counter,
        posixAgain, ///< the counter was in use: where it was ahead the POSIX clock has to catch up
        departing,  ///< the same, for good
        departed    ///< and that was told
    };
    struct Thread {
        S64 latest = 0;
        CounterScale scale;
        U32 unsure = 0; // bindings in a row
    };

    static S64 posixNow() noexcept { return boost::chrono::steady_clock::now().time_since_epoch().count(); }
    /// Ticks; 0 where there is no such counter. Not serialised: it is read a little sooner or later.
    static U64 counterNow() noexcept {
#if defined(__x86_64__) || defined(__i386__)
        return __builtin_ia32_rdtsc();
#else
        return 0;
#endif
    }
    MOX_EXPORT static S64 bound() noexcept;
    static CounterScale::Pair readBoth() noexcept;
    static void giveUp(char const* reason) noexcept;
    MOX_EXPORT static void tellDeparted() noexcept;

    MOX_EXPORT static constinit std::atomic<Mode> mode_;
    MOX_EXPORT static constinit thread_local Thread thread_ MOX_FAST_TLS;
};

} // namespace Mox
