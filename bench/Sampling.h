#pragma once

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

/// What the benchmarks share. A figure of ours stands beside a floor: the same work written by hand with
/// nothing around it. Both are sampled in turn, in one process on one core, so that what else the machine
/// does hits both, and what is printed is their ratio.
namespace Bench {

/// Nanoseconds that the calling thread has computed: time in which the machine ran somebody else does not
/// count.
inline double cpuNanoseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

inline std::int64_t steadyNanoseconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

inline void pinToCore(unsigned core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    if (pthread_setaffinity_np(pthread_self(), sizeof set, &set) != 0)
        std::fprintf(stderr, "could not pin the thread to core %u\n", core);
}

/// The q-th quantile; 0.5 is the median. Requires: not empty.
inline double quantile(std::vector<double> values, double q) {
    auto const at =
        values.begin() + static_cast<std::ptrdiff_t>(q * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}
inline double median(std::vector<double> values) { return quantile(std::move(values), 0.5); }

/// The numbers below n in a random order that is the same each time. What is allocated one after the other
/// and used in that order as well flatters caches, and no program that lives long is like that.
inline std::vector<std::uint32_t> shuffled(std::uint64_t n) {
    std::vector<std::uint32_t> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

/// What it costs to look at the thread's CPU time.
inline double costOfLooking() {
    static double const cost = [] {
        std::vector<double> costs;
        for (int i = 0; i < 1001; ++i) {
            double const before = cpuNanoseconds();
            costs.push_back(cpuNanoseconds() - before);
        }
        return median(costs);
    }();
    return cost;
}

/// CPU nanoseconds of `work`, for each of its `operations`.
template <class Work> double costOf(std::uint64_t operations, Work&& work) {
    double const looking = costOfLooking();
    double const before = cpuNanoseconds();
    work();
    return (cpuNanoseconds() - before - looking) / static_cast<double>(operations);
}

/// The same for each run that a load makes: a load says how many it made, since a group goes on to the end of
/// its quantum.
template <class Load> double costOfRuns(Load& load, std::uint64_t runs) {
    std::uint64_t made = 0;
    double const cost = costOf(1, [&] { made = load.run(runs); });
    return cost / static_cast<double>(made);
}

/// Medians of alternating samples.
struct Comparison {
    double ours = 0;
    double floor = 0;
    double spread = 0; // between the quartiles of the ratios, pair by pair
};

/// What one call of a sampled function gives: a figure for each of the operations that it times.
template <std::size_t operations> using Sample = std::array<double, operations>;

/// Samples both in turn. The first pair warms up and is dropped.
template <std::size_t operations = 1, class Ours, class Floor>
std::array<Comparison, operations> alternateEach(int samples, Ours&& ours, Floor&& floor) {
    std::array<std::vector<double>, operations> a, b, ratios;
    for (int i = 0; i <= samples; ++i) {
        Sample<operations> const x = ours(), y = floor();
        for (std::size_t k = 0; k < operations && i > 0; ++k) {
            a[k].push_back(x[k]);
            b[k].push_back(y[k]);
            ratios[k].push_back(x[k] / y[k]);
        }
    }
    std::array<Comparison, operations> result;
    for (std::size_t k = 0; k < operations; ++k)
        result[k] = {median(a[k]), median(b[k]), quantile(ratios[k], 0.75) - quantile(ratios[k], 0.25)};
    return result;
}
template <class Ours, class Floor> Comparison alternate(int samples, Ours&& ours, Floor&& floor) {
    return alternateEach(
        samples, [&] { return Sample<1>{ours()}; }, [&] { return Sample<1>{floor()}; })[0];
}

/// Medians of several contenders, sampled in turn. The first round warms up and is dropped. A contender that
/// sits out a round gives NaN.
inline std::vector<double> alternateAll(int samples, std::vector<std::function<double()>> const& contenders) {
    std::vector<std::vector<double>> figures(contenders.size());
    for (int i = 0; i <= samples; ++i) {
        for (std::size_t k = 0; k < contenders.size(); ++k) {
            double const figure = contenders[k]();
            if (i > 0 && !std::isnan(figure))
                figures[k].push_back(figure);
        }
    }
    std::vector<double> medians;
    for (auto const& of : figures)
        medians.push_back(median(of));
    return medians;
}

} // namespace Bench
