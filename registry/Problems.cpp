#include <registry/Problems.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <cmath>
#include <typeinfo>

namespace Kel {

using Mox::Problem;
using Mox::Seconds;

Problem problemOfThread(TaskScheduler const& scheduler) {
    TaskSchedulerRoot const* const root = scheduler.root();
    bool const allowed = !root || root->schedulerThread().isCurrent() || !root->schedulerPid().isCurrent();
    return allowed ? "" : "this thread is not the tree's";
}

Problem problemOfRequest(TaskScheduler const& scheduler) {
    if (!scheduler.root())
        return "the scheduler has no root";
    if (auto const* const group = dynamic_cast<TaskGroup const*>(&scheduler)) {
        auto const parentTask = group->parentTask() ? group->parentTask()->notifier() : nullptr;
        return parentTask ? problemOfScheduling(*parentTask) : "the group has no parent task";
    }
    if (auto const* const driver = dynamic_cast<TaskSchedulerMoxActivity const*>(&scheduler))
        return driver->clock() && driver->clock()->notifier() ? "" : "the root has no clock";
    bool const isBare =
        typeid(scheduler) == typeid(TaskScheduler) || typeid(scheduler) == typeid(TaskSchedulerRoot);
    return isBare ? "nothing runs the scheduler: it is neither a driver nor a group" : "";
}

Problem problemOfScheduling(Task const& task) {
    auto const scheduler = task.taskScheduler();
    if (!scheduler)
        return "the task has lost its scheduler";
    bool const needsNoRun = task.taskRunQueueLink().isLinked() || task.taskSuspendedForTest() ||
                            scheduler->schedulerHasRunnableTasks();
    return needsNoRun ? "" : problemOfRequest(*scheduler);
}

Problem problemOfRunning(Task const& task) {
    auto const* const parentTask = dynamic_cast<TaskGroupParentTask const*>(&task);
    bool const runsGroup =
        parentTask && parentTask->taskGroup() && parentTask->taskGroup()->schedulerHasRunnableTasks();
    if (!runsGroup)
        return {};
    auto const scheduler = task.taskScheduler();
    return scheduler ? problemOfRequest(*scheduler) : "the task has lost its scheduler";
}

Problem problemOfTrimming(TaskSchedulerRoot const& root) {
    bool const hasTask = root.trimHistoryTask() && root.trimHistoryTask()->notifier();
    bool const can = !root.trimHistoryEnabled() || hasTask || root.timerWheel();
    return can ? "" : "the root has no timer wheel to trim its history by";
}

Problem problemOfResettingStats(TaskScheduler const& scheduler) {
    if (auto const& reactor = scheduler.resetStatsTask())
        return reactor->notifier() ? problemOfScheduling(*reactor->notifier()) : "";
    return scheduler.schedulerHasRunnableTasks() ? "" : problemOfRequest(scheduler);
}

Problem problemOfRegistering(TaskScheduler const& scheduler, TaskPriority priority) {
    if (!scheduler.root())
        return "the scheduler has no root";
    auto const* const group = dynamic_cast<TaskGroup const*>(&scheduler);
    if (group && group->enforceTaskGroupPriority() && priority != group->taskGroupPriority())
        return "the group takes tasks of priority " + group->taskGroupPriority().toStrep() + " only";
    return problemOfThread(scheduler);
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
