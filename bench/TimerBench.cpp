// What a timer costs on a wheel, against a bare wheel: arming, arming again, cancelling, firing; the delays
// of timer tasks; and what a wheel does while nothing is due.

#include <bench/BareWheel.h>
#include <bench/Floor.h>

#include <kel/EventLoopTimerWheel.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <task/TimerTask.h>

#include <sys/resource.h>

#include <memory>
#include <random>
#include <vector>

namespace {

using Bench::BareWheel;
using Bench::Options;
using Bench::Sample;
using Bench::shuffled;
using Bench::Table;

double secondsNow() { return static_cast<double>(Bench::steadyNanoseconds()) / 1e9; }

std::vector<double> randomTimes(std::uint64_t n, double earliest, double latest) {
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
    void arm(std::uint32_t i, double time) { wheel.arm(*timers_[i], time); }
    void dueIs(std::uint32_t i, double time) { timers_[i]->due = time; }
    void cancel(std::uint32_t i) { wheel.cancel(*timers_[i]); }
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

constexpr int movesBefore = 7;

/// Each timer, in random order, armed, moved to another random time, moved once more after several such moves
/// (by then a wheel that moves lazily has most timers filed early enough), and cancelled.
template <class Timers> Sample<4> armMoveCancel(Timers& timers, std::vector<std::uint32_t> const& order) {
    std::uint64_t const n = order.size();
    std::uint64_t const rounds = std::max<std::uint64_t>(1, 100'000 / n);
    Sample<4> sum{};
    auto const each = [&](auto const& operation) {
        return Bench::costOf(n * rounds, [&] {
            for (std::uint32_t const i : order)
                operation(i);
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

void operations(Table& table, Options const& options, std::uint64_t n, double goal) {
    OurTimers ours(n);
    BareTimers bare(n);
    auto const order = shuffled(n);
    auto const costs = Bench::alternateEach<4>(
        options.samples(), [&] { return armMoveCancel(ours, order); },
        [&] { return armMoveCancel(bare, order); });
    table.compare("timer armed, ns / bare wheel", n, costs[0]);
    table.compare("timer moved to a random time, ns / bare wheel", n, costs[1], goal);
    table.compare("timer moved to a random time again, ns / bare wheel", n, costs[2], goal);
    table.compare("timer cancelled, ns / bare wheel", n, costs[3]);
}

constexpr unsigned firedTimers = 100'000;

/// CPU time of a loop that fires 100,000 timers in two seconds.
template <class Timers> double fire(Timers& timers) {
    std::vector<double> const times = randomTimes(firedTimers, 0.0, 2.0);
    for (std::uint32_t const i : shuffled(firedTimers)) {
        timers.arm(i, times[i]);
        timers.dueIs(i, times[i]);
    }
    std::uint64_t const before = timers.expiries.count;
    double const cost = Bench::costOf(firedTimers, [&] { timers.runUntil(secondsNow() + 2.02); });
    if (timers.expiries.count - before != firedTimers) {
        std::fprintf(stderr, "timers were lost\n");
        std::exit(1);
    }
    return cost;
}

void firing(Table& table, Options const& options) {
    OurTimers ours(firedTimers);
    BareTimers bare(firedTimers);
    table.compare("timer fired, CPU ns / bare wheel", firedTimers,
                  Bench::alternate(
                      options.quick ? 1 : 10, [&] { return fire(ours); }, [&] { return fire(bare); }),
                  2.0);
    ours.expiries.timed = bare.expiries.timed = true;
    fire(ours);
    fire(bare);
    table.figure("timers fired early", firedTimers, static_cast<double>(ours.expiries.early), {}, 0);
    for (auto const& [name, q] : {std::pair("timer fired late, ms, p50", 0.5),
                                  {"timer fired late, ms, p99", 0.99},
                                  {"timer fired late, ms, max", 1.0}})
        table.figure(name, firedTimers, Bench::quantile(ours.expiries.latenessMsec, q),
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

void delays(Table& table, Options const& options, std::uint64_t n) {
    OurDelays ours(n);
    BareDelays bare(n);
    auto const order = shuffled(n);
    table.compare("scheduleTaskDelay, ns / bare wheel, 2 clocks, 1 event", n,
                  Bench::alternate(
                      options.samples(), [&] { return delayAgain(ours, order); },
                      [&] { return delayAgain(bare, order); }),
                  1.5);
}

void idleWheel(Table& table) {
    constexpr unsigned far = 1000;
    OurTimers ours(far);
    std::vector<double> const times = randomTimes(far, 3600, 7200);
    for (std::uint32_t i = 0; i < far; ++i)
        ours.arm(i, times[i]);
    auto const switches = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return static_cast<double>(usage.ru_nvcsw);
    };
    std::uint64_t const wakeupsBefore = ours.wheel->wakeups();
    double const switchesBefore = switches();
    ours.runUntil(secondsNow() + 5.0);
    table.figure("wake-ups of a wheel in 5 s, all timers far", far,
                 static_cast<double>(ours.wheel->wakeups() - wakeupsBefore), {}, 0);
    table.figure("sleeps of its thread, one being the 5 s themselves", far, switches() - switchesBefore, {},
                 1);
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    Table table(options);
    operations(table, options, 1'000, 1.5);
    operations(table, options, 100'000, 1.5);
    operations(table, options, 1'000'000, 0.6);
    delays(table, options, 1'000);
    delays(table, options, 100'000);
    firing(table, options);
    idleWheel(table);
}
