#pragma once

#include <bench/Sampling.h>

#include <boost/intrusive/list.hpp>

#include <array>
#include <cstdint>

namespace Bench {

/// The floor under a timer wheel: 1024 buckets of intrusive lists, absolute ticks of 10 ms, moved at once
/// when armed again, and nothing else.
class BareWheel {
  public:
    class Timer {
      public:
        virtual ~Timer() = default;
        virtual void onTime() = 0;

        std::uint32_t references = 1; // its owner's, and a ring's

      private:
        friend class BareWheel;
        using Hook =
            boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
        Hook hook_;
        std::int64_t tick_ = 0;
    };

    /// At an absolute time in seconds.
    void arm(Timer& timer, double time) {
        timer.hook_.unlink();
        auto const tick = static_cast<std::int64_t>(time * ticksPerSecond);
        timer.tick_ = static_cast<double>(tick) < time * ticksPerSecond ? tick + 1 : tick;
        bucketOf(timer.tick_).push_back(timer);
    }
    void cancel(Timer& timer) { timer.hook_.unlink(); }

    /// Nothing that is armed is due before now: the wheel goes on from here.
    void skipToNow() { next_ = steadyNanoseconds() / tickNanoseconds; }
    /// Sleeps from tick to tick, and calls what is due, until that time.
    void runUntil(double time) {
        for (auto const last = static_cast<std::int64_t>(time * ticksPerSecond); next_ <= last; ++next_) {
            timespec const due{next_ * tickNanoseconds / 1'000'000'000,
                               next_ * tickNanoseconds % 1'000'000'000};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
            expire(next_);
        }
    }

  private:
    static constexpr double ticksPerSecond = 100.0;
    static constexpr std::int64_t tickNanoseconds = 10'000'000;
    using Bucket =
        boost::intrusive::list<Timer, boost::intrusive::member_hook<Timer, Timer::Hook, &Timer::hook_>,
                               boost::intrusive::constant_time_size<false>>;

    Bucket& bucketOf(std::int64_t tick) { return buckets_[static_cast<std::size_t>(tick) & 1023]; }

    void expire(std::int64_t tick) {
        Bucket& bucket = bucketOf(tick);
        for (auto at = bucket.begin(); at != bucket.end();) {
            Timer& timer = *at++;
            if (timer.tick_ > tick)
                continue;
            timer.hook_.unlink();
            timer.onTime();
        }
    }

    std::array<Bucket, 1024> buckets_;
    std::int64_t next_ = 0; // the tick to wait for
};

} // namespace Bench
