// What a task run costs on its whole road through an event-loop root: one reactor, statistics, history,
// notifications, timer wheel, trace levels off. Against the floor of Floor.h.

#include <bench/Rows.h>
#include <bench/TaskLoad.h>

#include <mox/SteadyClock.h>

namespace {

using Bench::FloorLoad;
using Bench::Options;

template <class Load, class Other>
Bench::Comparison compareRuns(Options const& options, Load& load, Other& other, std::uint64_t n) {
    std::uint64_t const runs = std::max<std::uint64_t>(n, options.quick ? 50'000 : 200'000);
    auto const sample = [runs](auto& of) { return [runs, &of] { return Bench::costOfRuns(of, runs); }; };
    return Bench::alternate(options.samples(n), sample(load), sample(other));
}

void taskRun(Options const& options, char const* name, std::uint64_t n, Bench::Shape const& shape = {}) {
    Bench::TaskLoad ours(n, Kel::EventLoop::EventLoopIs(), shape);
    FloorLoad<> floor(n);
    Bench::compare(name, n, compareRuns(options, ours, floor, n));
}

/// With the time told by the processor's counter: against the floor as it is, and against one that reads
/// nothing but the counter.
void taskRunWithFastClock(Options const& options, std::uint64_t n) {
    FloorLoad<> floor(n);
    FloorLoad<true, true, true, true> floorWithCounter(n);
    Bench::TaskLoad ours(n);
    Bench::compare("task run, fast clock, ns", n, compareRuns(options, ours, floor, n));
    Bench::compare("task run, fast clock / floor with it, ns", n,
                   compareRuns(options, ours, floorWithCounter, n));
}

/// How far readings were from the POSIX clock, which was read before and behind.
void fastClockOverTime(Options const& options) {
    std::int64_t most = 0, ended = 0;
    std::int64_t const end =
        Bench::steadyNanoseconds() + (options.quick ? 5 : 60) * std::int64_t{1'000'000'000};
    do {
        std::int64_t const before = Bench::steadyNanoseconds();
        std::int64_t const reading = Mox::SteadyClock::now().time_since_epoch().count();
        ended = Bench::steadyNanoseconds();
        most = std::max({most, before - reading, reading - ended});
    } while (ended < end);
    Bench::figure("fast clock away from the POSIX clock, ns, at most", options.quick ? 5 : 60,
                  static_cast<double>(most));
}

/// Last, since a clock that was fast stays behind.
void fastClock(Options const& options) {
    using Mox::SteadyClock;
    Mox::Problem problem = SteadyClock::sourceIs(SteadyClock::Source::counter);
    if (problem.empty()) {
        for (unsigned const n : {1u, 16u, 1000u})
            taskRunWithFastClock(options, n);
        fastClockOverTime(options);
        if (SteadyClock::source() != SteadyClock::Source::counter)
            problem = "it was given up";
    }
    if (!problem.empty())
        Bench::leftOut("fast clock", problem);
}

/// What a part of the measurement costs: the whole floor against one without the part.
template <bool... parts> void partOfFloor(Options const& options, char const* name, std::uint64_t n) {
    FloorLoad<> whole(n);
    FloorLoad<parts...> without(n);
    Bench::compare(name, n, compareRuns(options, whole, without, n));
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    for (unsigned const n : {1u, 16u, 1000u, 100'000u, 1'000'000u})
        taskRun(options, "task run, ns", n);
    taskRun(options, "task run in a group / floor, ns", 16, {.groups = 1});
    for (unsigned const n : options.quick ? std::vector<unsigned>{} : std::vector<unsigned>{16, 100'000}) {
        partOfFloor<true, false, true>(options, "floor, ns / floor without history", n);
        partOfFloor<true, true, false>(options, "floor, ns / floor without statistics", n);
        partOfFloor<true, false, false>(options, "floor, ns / floor without both", n);
        partOfFloor<false, false, false>(options, "floor, ns / floor without both and their clock", n);
    }
    fastClock(options);
}
