#pragma once

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <string_view>
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
    std::vector<std::uint32_t> order(n);
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

/// Medians of alternating samples.
struct Comparison {
    double ours = 0;
    double floor = 0;
    double spread = 0; // between the quartiles of the ratios, pair by pair

    double ratio() const { return ours / floor; }
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

/// What the command line asks for: `--quick` (fewer samples), `--json FILE` (the rows, as a JSON list).
struct Options {
    bool quick = false;
    std::string json;

    Options(int argc, char** argv) {
        for (int i = 1; i < argc; ++i) {
            std::string_view const word = argv[i];
            if (word == "--quick") {
                quick = true;
            } else if (word == "--json" && i + 1 < argc) {
                json = argv[++i];
            } else {
                std::fprintf(stderr, "usage: %s [--quick] [--json FILE]\n", argv[0]);
                std::exit(2);
            }
        }
    }
    /// Alternating samples for a median.
    int samples() const { return quick ? 5 : 11; }
};

/// The rows of one benchmark: printed as they come, written as JSON at the end.
class Table {
  public:
    explicit Table(Options const& options) : json_(options.json) {
        std::printf("%-52s %9s %10s %10s %7s %7s %7s\n", "", "n", "ours", "floor", "ratio", "spread", "goal");
    }
    ~Table() {
        if (!json_.empty())
            write();
    }
    Table(Table const&) = delete;
    Table& operator=(Table const&) = delete;

    /// A goal limits the ratio.
    void compare(std::string name, std::uint64_t n, Comparison const& c, std::optional<double> goal = {}) {
        add({std::move(name), n, c.ours, c.floor, c.ratio(), c.spread, goal, holds(c.ratio(), goal)});
    }
    /// A goal limits our own figure; the floor, if any, is there to read it by.
    void figure(std::string name, std::uint64_t n, double ours, std::optional<double> floor = {},
                std::optional<double> goal = {}) {
        std::optional<double> ratio;
        if (floor && *floor != 0)
            ratio = ours / *floor;
        add({std::move(name), n, ours, floor, ratio, {}, goal, holds(ours, goal)});
    }

  private:
    using Figure = std::optional<double>;
    struct Row {
        std::string name;
        std::uint64_t n;
        double ours;
        Figure floor, ratio, spread, goal;
        std::optional<bool> holds;
    };

    static std::optional<bool> holds(double figure, Figure goal) {
        return goal ? std::optional(figure <= *goal) : std::nullopt;
    }

    void add(Row row) {
        std::printf("%-52s %9llu %10.2f %s %s %s %s%s\n", row.name.c_str(),
                    static_cast<unsigned long long>(row.n), row.ours, column(row.floor, 10).c_str(),
                    column(row.ratio, 7).c_str(), column(row.spread, 7).c_str(), column(row.goal, 7).c_str(),
                    !row.holds   ? ""
                    : *row.holds ? "  holds"
                                 : "  MISSED");
        std::fflush(stdout);
        rows_.push_back(std::move(row));
    }
    static std::string column(Figure figure, int width) {
        char text[32];
        if (figure)
            std::snprintf(text, sizeof text, "%*.2f", width, *figure);
        else
            std::snprintf(text, sizeof text, "%*s", width, "");
        return text;
    }

    void write() const {
        std::FILE* const file = std::fopen(json_.c_str(), "w");
        if (!file) {
            std::perror(json_.c_str());
            std::exit(1);
        }
        char const* separator = "[\n";
        for (Row const& row : rows_) {
            std::fprintf(file, R"(%s  {"name": "%s", "n": %llu, "ours": %.6g, "floor": %s, "ratio": %s, )",
                         std::exchange(separator, ",\n"), row.name.c_str(),
                         static_cast<unsigned long long>(row.n), row.ours, number(row.floor).c_str(),
                         number(row.ratio).c_str());
            std::fprintf(file, R"("spread": %s, "goal": %s, "holds": %s})", number(row.spread).c_str(),
                         number(row.goal).c_str(),
                         !row.holds   ? "null"
                         : *row.holds ? "true"
                                      : "false");
        }
        std::fputs(rows_.empty() ? "[]\n" : "\n]\n", file);
        std::fclose(file);
    }
    static std::string number(Figure figure) {
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", figure.value_or(0));
        return figure && std::isfinite(*figure) ? text : "null";
    }

    std::string const json_;
    std::vector<Row> rows_;
};

} // namespace Bench
