// What a timer costs on a wheel, against a bare wheel: arming, arming again, cancelling, firing; the delays
// of timer tasks; and what a wheel does while nothing is due.

#include <bench/Floor.h>
#include <bench/Rows.h>
#include <bench/Timers.h>

#include <scheduler/TaskSchedulerEventLoop.h>
#include <task/TimerTask.h>

#include <memory>
#include <vector>

namespace {

using Bench::BareTimers;
using Bench::BareWheel;
using Bench::fire;
using Bench::firedTimers;
using Bench::Options;
using Bench::OurTimers;
using Bench::randomTimes;
using Bench::secondsNow;
using Bench::shuffled;

void operations(Options const& options, std::uint64_t n) {
    OurTimers ours(n);
    BareTimers bare(n);
    auto const order = shuffled(n);
    auto const costs = Bench::alternateEach<4>(
        options.samples(n), [&] { return armMoveCancel(ours, order); },
        [&] { return armMoveCancel(bare, order); });
    Bench::compare("timer armed, ns", n, costs[0]);
    Bench::compare("timer moved to a random time, ns", n, costs[1]);
    Bench::compare("timer moved to a random time again, ns", n, costs[2]);
    Bench::compare("timer cancelled, ns", n, costs[3]);
}

void firing() {
    OurTimers ours(firedTimers);
    BareTimers bare(firedTimers);
    ours.expiries.timed = bare.expiries.timed = true;
    auto const firstTimed = [](auto& timers) {
        return [&timers] {
            double const cost = fire(timers);
            timers.expiries.timed = false;
            return cost;
        };
    };
    // Both warm up with a look at their clocks; the full run samples them once more, beside the peers.
    Bench::compare("timer fired, CPU ns", firedTimers,
                   Bench::alternate(1, firstTimed(ours), firstTimed(bare)));
    Bench::figure("timers fired early", firedTimers, static_cast<double>(ours.expiries.early));
    for (auto const& [name, q] : {std::pair("timer fired late, ms, p50", 0.5),
                                  {"timer fired late, ms, p99", 0.99},
                                  {"timer fired late, ms, max", 1.0}})
        Bench::figure(name, firedTimers, Bench::quantile(ours.expiries.latenessMsec, q),
                      Bench::quantile(bare.expiries.latenessMsec, q));
}

/// Timer tasks with their timers running.
class OurDelays {
  public:
    explicit OurDelays(std::uint64_t n) {
        for (std::uint64_t i = 0; i < n; ++i)
            tasks_.push_back(Kel::TimerTask::TimerTaskIs(root_, Kel::TaskPriority::normal, "delayed"));
    }
    void start(std::uint32_t i, double delay) {
        tasks_[i]->stopTimerTask();
        again(i, delay);
    }
    void again(std::uint32_t i, double delay) { tasks_[i]->scheduleTaskDelay(delay); }

  private:
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root_ =
        Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("bench", Kel::EventLoop::EventLoopIs());
    std::vector<Mox::Ptr<Kel::TimerTask>> tasks_;
};

/// The floor under them: a bare wheel, two clock readings, one ring entry.
class BareDelays {
  public:
    explicit BareDelays(std::uint64_t n) {
        for (std::uint64_t i = 0; i < n; ++i)
            timers_.push_back(std::make_unique<Timer>());
    }
    void start(std::uint32_t i, double delay) { again(i, delay); }
    void again(std::uint32_t i, double delay) {
        wheel_.arm(*timers_[i], secondsNow() + delay);
        ring_.record(*timers_[i], Bench::steadyNanoseconds(), 4);
    }

  private:
    struct Timer : BareWheel::Timer {
        void onTime() override {}
    };
    BareWheel wheel_;
    Bench::FloorRing<BareWheel::Timer> ring_;
    std::vector<std::unique_ptr<Timer>> timers_;
};

/// Each delay, in random order, set to another random one.
template <class Delays> double delayAgain(Delays& delays, std::vector<std::uint32_t> const& order) {
    std::uint64_t const n = order.size();
    std::uint64_t const rounds = std::max<std::uint64_t>(1, 100'000 / n);
    double sum = 0;
    double const now = secondsNow();
    for (std::uint64_t round = 0; round < rounds; ++round) {
        std::vector<double> const first = randomTimes(n, 1, 61), second = randomTimes(n, 1, 61);
        for (std::uint32_t const i : order)
            delays.start(i, first[i] - now);
        sum += Bench::costOf(n * rounds, [&] {
            for (std::uint32_t const i : order)
                delays.again(i, second[i] - now);
        });
    }
    return sum;
}

void delays(Options const& options, std::uint64_t n) {
    OurDelays ours(n);
    BareDelays bare(n);
    auto const order = shuffled(n);
    Bench::compare("scheduleTaskDelay, ns", n,
                   Bench::alternate(
                       options.samples(), [&] { return delayAgain(ours, order); },
                       [&] { return delayAgain(bare, order); }));
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    operations(options, 1'000);
    operations(options, 100'000);
    operations(options, 1'000'000);
    delays(options, 1'000);
    delays(options, 100'000);
    firing();
}
