#pragma once

#include <bench/BareWheel.h>
#include <bench/Sampling.h>

#include <kel/EventLoopTimerWheel.h>

#include <memory>
#include <random>
#include <vector>

namespace Bench {

inline double secondsNow() { return static_cast<double>(steadyNanoseconds()) / 1e9; }

inline std::vector<double> randomTimes(std::uint64_t n, double earliest, double latest) {
    static std::mt19937 engine(1);
    std::uniform_real_distribution<double> spread(earliest, latest);
    std::vector<double> times(n);
    double const now = secondsNow();
    for (double& time : times)
        time = now + spread(engine);
    return times;
}

/// What timers tell of their expiries.
struct Expiries {
    std::uint64_t count = 0;
    bool timed = false; // reads the clock
    std::uint64_t early = 0;
    std::vector<double> latenessMsec;

    void onTime(double due) {
        ++count;
        if (!timed)
            return;
        double const lateness = secondsNow() - due;
        early += lateness < 0 ? 1 : 0;
        latenessMsec.push_back(lateness * 1e3);
    }
};

/// Timers on a wheel such as a root has.
class OurTimers {
  public:
    explicit OurTimers(std::uint64_t n) {
        for (std::uint64_t i = 0; i < n; ++i)
            timers_.emplace_back(new Timer(expiries))->notifierIs(wheel);
    }
    /// Does something on the loop: some peers are at their best inside it.
    template <class Work> void inside(Work&& work) { work(); }
    void arm(std::uint32_t i, double time) { timers_[i]->timeMinIs(time); }
    void dueIs(std::uint32_t i, double time) { timers_[i]->due = time; }
    void cancel(std::uint32_t i) { timers_[i]->timeMinIs(Mox::endOfTime); }
    void runUntil(double time) { loop->runUntil(time); }

    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Mox::Ptr<Kel::TimerWheel> const wheel =
        Kel::EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, nullptr, 10, 8640000, true, 1024, loop);
    Expiries expiries;

  private:
    struct Timer : Kel::TimerWheel::Notifiee {
        explicit Timer(Expiries& all) : told(all) {}
        void onTime() override { told.onTime(due); }
        Expiries& told;
        double due = 0;
    };
    std::vector<Mox::Ptr<Timer>> timers_;
};

class BareTimers {
  public:
    explicit BareTimers(std::uint64_t n) {
        for (std::uint64_t i = 0; i < n; ++i)
            timers_.push_back(std::make_unique<Timer>(expiries));
    }
    template <class Work> void inside(Work&& work) { work(); }
    void arm(std::uint32_t i, double time) { wheel.arm(*timers_[i], time); }
    void dueIs(std::uint32_t i, double time) { timers_[i]->due = time; }
    void cancel(std::uint32_t i) { wheel.cancel(*timers_[i]); }
    void skipToNow() { wheel.skipToNow(); }
    void runUntil(double time) { wheel.runUntil(time); }

    BareWheel wheel;
    Expiries expiries;

  private:
    struct Timer : BareWheel::Timer {
        explicit Timer(Expiries& all) : told(all) {}
        void onTime() override { told.onTime(due); }
        Expiries& told;
        double due = 0;
    };
    std::vector<std::unique_ptr<Timer>> timers_;
};

constexpr int movesBefore = 15;

/// Each timer, in random order, armed, moved to another random time, moved once more after several such moves
/// (by then a wheel that moves lazily has most timers filed early enough), and cancelled.
template <class Timers> Sample<4> armMoveCancel(Timers& timers, std::vector<std::uint32_t> const& order) {
    std::uint64_t const n = order.size();
    std::uint64_t const rounds = std::max<std::uint64_t>(1, 100'000 / n);
    Sample<4> sum{};
    auto const each = [&](auto const& operation) {
        return costOf(n * rounds, [&] {
            timers.inside([&] {
                for (std::uint32_t const i : order)
                    operation(i);
            });
        });
    };
    std::vector<double> times;
    auto const armAll = [&] {
        times = randomTimes(n, 1, 61);
        return each([&](std::uint32_t i) { timers.arm(i, times[i]); });
    };
    for (std::uint64_t round = 0; round < rounds; ++round) {
        sum[0] += armAll();
        sum[1] += armAll();
        for (int i = 1; i < movesBefore; ++i)
            armAll();
        sum[2] += armAll();
        sum[3] += each([&](std::uint32_t i) { timers.cancel(i); });
    }
    return sum;
}

/// Moves each timer, in this order, to a random time; often enough for a sample.
template <class Timers> double moveAll(Timers& timers, std::vector<std::uint32_t> const& order) {
    std::uint64_t const n = order.size();
    std::uint64_t const rounds = std::max<std::uint64_t>(1, 100'000 / n);
    double sum = 0;
    for (std::uint64_t round = 0; round < rounds; ++round) {
        std::vector<double> const times = randomTimes(n, 1, 61);
        sum += costOf(n * rounds, [&] {
            timers.inside([&] {
                for (std::uint32_t const i : order)
                    timers.arm(i, times[i]);
            });
        });
    }
    return sum;
}

constexpr unsigned firedTimers = 100'000;

/// CPU time of a loop that fires 100,000 timers in two seconds. For timers without a tick of their own (they
/// say `rounded`) the times are rounded up to that of ours: else they would wake up for almost each alone.
template <class Timers> double fire(Timers& timers) {
    if constexpr (requires { timers.skipToNow(); })
        timers.skipToNow();
    std::vector<double> times = randomTimes(firedTimers, 0.0, 2.0);
    if constexpr (requires { Timers::rounded; })
        for (double& time : times)
            time = std::ceil(time * 100.0) / 100.0;
    std::uint64_t const before = timers.expiries.count;
    timers.inside([&] {
        for (std::uint32_t const i : shuffled(firedTimers))
            timers.arm(i, times[i]);
    });
    if constexpr (requires { timers.dueIs(0, 0.0); })
        for (std::uint32_t i = 0; i < firedTimers; ++i)
            timers.dueIs(i, times[i]);
    double const cost = costOf(firedTimers, [&] {
        timers.runUntil(secondsNow() + 2.03);
        if (timers.expiries.count - before != firedTimers) // the machine was busy with something else
            timers.runUntil(secondsNow() + 1.0);
    });
    if (timers.expiries.count - before != firedTimers) {
        std::fprintf(stderr, "timers were lost: %llu fired\n",
                     static_cast<unsigned long long>(timers.expiries.count - before));
        std::exit(1);
    }
    return cost;
}

} // namespace Bench
