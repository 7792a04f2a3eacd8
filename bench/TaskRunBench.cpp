// What a task run costs on its whole road through an event-loop root: one reactor, statistics, history,
// notifications, timer wheel, trace levels off. Against the floor of Floor.h.

#include <bench/Rows.h>
#include <bench/TaskLoad.h>

namespace {

using Bench::FloorLoad;
using Bench::Options;

template <class Load, class Other>
Bench::Comparison compareRuns(Options const& options, Load& load, Other& other, std::uint64_t n) {
    std::uint64_t const runs = std::max<std::uint64_t>(n, options.quick ? 50'000 : 200'000);
    auto const sample = [runs](auto& of) {
        return [runs, &of] { return Bench::costOf(runs, [&] { of.run(runs); }); };
    };
    return Bench::alternate(options.samples(n), sample(load), sample(other));
}

void taskRun(Options const& options, std::uint64_t n) {
    Bench::TaskLoad ours(n);
    FloorLoad<> floor(n);
    Bench::compare("task run, ns", n, compareRuns(options, ours, floor, n));
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
        taskRun(options, n);
    if (options.quick)
        return 0;
    for (unsigned const n : {16u, 100'000u}) {
        partOfFloor<true, false, true>(options, "floor, ns / floor without history", n);
        partOfFloor<true, true, false>(options, "floor, ns / floor without statistics", n);
        partOfFloor<true, false, false>(options, "floor, ns / floor without both", n);
        partOfFloor<false, false, false>(options, "floor, ns / floor without both and their clock", n);
    }
}
