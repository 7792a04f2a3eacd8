// What is added to a task run by what an application may add to it: more reactors, groups, a trace level.
// Ours is the run with it, the floor the same run without.

#include <bench/Rows.h>
#include <bench/TaskLoad.h>

#include <mox/TraceHandle.h>

namespace {

using Bench::Options;
using Bench::Shape;
using Bench::TaskLoad;

constexpr std::uint64_t tasks = 16;
constexpr std::uint64_t runs = 100'000;

auto sample(TaskLoad& load) {
    return [&load] { return Bench::costOfRuns(load, runs); };
}

void added(Options const& options, char const* name, Shape const& shape) {
    TaskLoad with(tasks, Kel::EventLoop::EventLoopIs(), shape);
    TaskLoad without(tasks);
    Bench::compare(name, tasks, Bench::alternate(options.samples(), sample(with), sample(without)));
}

/// Level 8 tells of every run, and of every time a task is scheduled.
void traced(Options const& options) {
    auto& handle = Mox::TraceHandle::traceHandle("TaskScheduler");
    std::uint64_t records = 0;
    handle.sinkIs([&records](Mox::TraceRecord const&) { ++records; });
    TaskLoad load(tasks);
    auto const at = [&](bool enabled) {
        return [&, enabled] {
            handle.levelEnabledIs(8, enabled);
            double const cost = sample(load)();
            handle.levelEnabledIs(8, false);
            return cost;
        };
    };
    Bench::compare("task run with trace level 8 to a sink that counts, ns", tasks,
                   Bench::alternate(options.samples(), at(true), at(false)));
    if (records == 0) {
        std::fprintf(stderr, "nothing was traced\n");
        std::exit(1);
    }
    handle.sinkIs(nullptr);
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    added(options, "task run with a second reactor, ns", {.reactors = 2});
    added(options, "task run with five reactors, ns", {.reactors = 5});
    added(options, "task run in a group, ns", {.groups = 1});
    added(options, "task run in a group in a group, ns", {.groups = 2});
    traced(options);
}
