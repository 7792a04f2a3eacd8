#include <registry/detail/Problems.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <algorithm>
#include <cmath>
#include <typeinfo>
#include <vector>

namespace Kel {

using Mox::Problem;
using Mox::Seconds;

Problem problemOfThread(TaskScheduler const& scheduler) {
    TaskSchedulerRoot const* const root = scheduler.root();
    bool const allowed = !root || root->schedulerThread().isCurrent() || !root->schedulerPid().isCurrent();
    return allowed ? "" : "this thread is not the tree's";
}

namespace {

/// The groups that a request has gone through.
using Asked = std::vector<TaskScheduler const*>;

/// Null when there is none.
Mox::Ptr<TaskGroupParentTask> attachedTask(TaskGroup const& group) {
    return group.parentTask() ? group.parentTask()->notifier() : nullptr;
}

Problem problemOfDriver(TaskScheduler const& scheduler) {
    if (auto const* const driver = dynamic_cast<TaskSchedulerMoxActivity const*>(&scheduler))
        return driver->clock() && driver->clock()->notifier() ? "" : "the root has no clock";
    bool const isBare =
        typeid(scheduler) == typeid(TaskScheduler) || typeid(scheduler) == typeid(TaskSchedulerRoot);
    return isBare ? "nothing runs the scheduler: it is neither a driver nor a group" : "";
}

Problem problemOfScheduling(Task const& task, Asked& asked);

Problem problemOfRequest(TaskScheduler const& scheduler, Asked& asked) {
    if (!scheduler.root())
        return "the scheduler has no root";
    auto const* const group = dynamic_cast<TaskGroup const*>(&scheduler);
    if (!group)
        return problemOfDriver(scheduler);
    // Parent tasks can stand in each other's groups: one that is come back to is on its queue by then.
    if (std::ranges::find(asked, group) != asked.end())
        return {};
    asked.push_back(group);
    auto const parentTask = attachedTask(*group);
    return parentTask ? problemOfScheduling(*parentTask, asked) : "the group has no parent task";
}

Problem problemOfScheduling(Task const& task, Asked& asked) {
    TaskScheduler const* const scheduler = task.scheduler();
    if (!scheduler)
        return "the task has lost its scheduler";
    bool const needsNoRun = task.taskRunQueueLink().isLinked() || task.taskSuspendedForTest() ||
                            scheduler->schedulerHasRunnableTasks();
    return needsNoRun ? "" : problemOfRequest(*scheduler, asked);
}

bool runsGroup(Task const& task) {
    auto const* const parentTask = dynamic_cast<TaskGroupParentTask const*>(&task);
    return parentTask && parentTask->taskGroup() && parentTask->taskGroup()->schedulerHasRunnableTasks();
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

Problem problemOfRequest(TaskScheduler const& scheduler) {
    Asked asked;
    return problemOfRequest(scheduler, asked);
}

Problem problemOfScheduling(Task const& task) {
    Asked asked;
    return problemOfScheduling(task, asked);
}

Problem problemOfRunning(Task const& task) {
    if (!runsGroup(task) && !resetsStats(task))
        return {};
    TaskScheduler const* const scheduler = task.scheduler();
    return scheduler ? problemOfRequest(*scheduler) : "the task has lost its scheduler";
}

Problem problemOfTrimming(TaskSchedulerRoot const& root) {
    if (!root.trimHistoryEnabled())
        return {};
    auto const task = root.trimHistoryTask() ? root.trimHistoryTask()->notifier() : nullptr;
    if (!task && !root.timerWheel())
        return "the root has no timer wheel to trim its history by";
    TaskScheduler const* const scheduler = task ? task->scheduler() : &root;
    return scheduler ? problemOfRequest(*scheduler) // once the timer fires
                     : "the task that trims the history has lost its scheduler";
}

Problem problemOfResettingStats(TaskScheduler const& scheduler) {
    if (auto const& reactor = scheduler.resetStatsTask())
        return reactor->notifier() ? problemOfScheduling(*reactor->notifier()) : "";
    return scheduler.schedulerHasRunnableTasks() ? "" : problemOfRequest(scheduler);
}

Problem problemOfResettingGroup(TaskGroup const& group) {
    auto const parentTask = attachedTask(group);
    if (!parentTask || !parentTask->scheduler())
        return {}; // left out
    auto const& reactor = group.resetStatsTask();
    return reactor && !reactor->notifier() ? "null ValidPtr" : problemOfResettingStats(group);
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
