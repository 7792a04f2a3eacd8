#include <registry/detail/Problems.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <algorithm>
#include <cmath>

namespace Kel {

using Mox::Problem;
using Mox::Seconds;

namespace {

bool runsGroup(Task const& task) {
    auto const* const parentTask = dynamic_cast<TaskGroupParentTask const*>(&task);
    return parentTask && parentTask->runsPasses();
}

bool resets(Task const& task, TaskScheduler const& scheduler) {
    return scheduler.resetStatsTask() && scheduler.resetStatsTask()->notifier() == &task;
}

/// Whether a scheduler of its tree resets its statistics when the task runs.
bool resetsStats(Task const& task) {
    TaskScheduler const* const scheduler = task.scheduler();
    if (!scheduler || !scheduler->root())
        return false;
    return resets(task, *scheduler) ||
           std::ranges::any_of(scheduler->root()->taskScheduler(),
                               [&](auto const& entry) { return resets(task, *entry.first); });
}

} // namespace

Problem problemOfRunning(Task const& task) {
    if (!runsGroup(task) && !resetsStats(task))
        return {};
    TaskScheduler const* const scheduler = task.scheduler();
    return scheduler ? scheduler->problemOfRequest() : "the task has lost its scheduler";
}

constinit Mox::Range<Seconds> const quantumRange{"within 1e-09 and 1.0 seconds", [](Seconds const& quantum) {
                                                     if (std::isnan(quantum))
                                                         return false;
                                                     auto const internal = Mox::toNanoseconds(quantum);
                                                     return internal.count() > 0 &&
                                                            internal <= boost::chrono::seconds(1);
                                                 }};

constinit Mox::Range<Seconds> const durationRange{
    "within 9.2e9 seconds", [](Seconds const& duration) { return std::abs(duration) <= 9.2e9; }};

constinit Mox::Range<TaskTimeStamp> const stampRange{
    "a reading that the steady clock has given",
    [](TaskTimeStamp const& stamp) { return stamp >= TaskTimeStamp() && stamp <= Mox::SteadyClock::now(); }};

} // namespace Kel
