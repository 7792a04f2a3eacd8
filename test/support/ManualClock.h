#pragma once

#include <boost/noncopyable.hpp>

#include <chrono>
#include <cstdint>

namespace TestSupport {

/// Takes the calling thread's steady clock in hand: while the object lives, CLOCK_MONOTONIC stands still for
/// that thread and moves only as told here. Other threads and other clocks go on as ever.
///
/// It is done by interposing `clock_gettime`, so that the library under test is the one that is shipped. A
/// loop that sleeps on a real clock would sleep for ever; turn it by `runOnce()`, or let each reading move
/// the time.
///
/// One object a thread at a time. Make it before whatever remembers readings.
class ManualClock : boost::noncopyable {
  public:
    using Duration = std::chrono::nanoseconds;
    /// What the calling thread's clock is, as far as it is taken in hand.
    struct State {
        bool manual = false;
        Duration now{}, perReading{};
        std::uint64_t readings = 0;
    };

    explicit ManualClock(Duration start = std::chrono::seconds(1000));
    ~ManualClock() { state = {}; }

    /// The present time; looking at it here is no reading.
    Duration now() const { return state.now; }
    void nowIs(Duration time) { state.now = time; }
    /// A negative duration turns the clock back.
    void advance(Duration duration) { nowIs(now() + duration); }

    /// Every reading moves the clock by so much, after it was taken: work takes time.
    void perReadingIs(Duration duration) { state.perReading = duration; }
    /// How often the thread has read the clock.
    std::uint64_t readings() const { return state.readings; }

    static constinit thread_local State state;
};

} // namespace TestSupport
