#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerRoot.h>

#include <mox/Assert.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerReport.h>
#include <task/detail/TaskTrace.h>

#include <optional>

namespace Kel {

using EventType = TaskSchedulerEventType;

MOX_DEFINE_TYPE(TaskSchedulerRoot, "Kel::TaskSchedulerRoot", &TaskScheduler::type())

// Life and death

Mox::Ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(Mox::String8 const& name) {
    Mox::Ptr<TaskSchedulerRoot> root = new TaskSchedulerRoot(name);
    root->hasNotificationActiveIs(true);
    return root;
}

Mox::Ptr<TaskSchedulerRoot> taskSchedulerRootFactory(Mox::String8 const& name) {
    return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

TaskSchedulerRoot::TaskSchedulerRoot(Mox::String8 const& name) : TaskScheduler(name, this) {
    registerScheduler(this);
}

/// The trim task goes before the base drops its own, and while history, wheel and clock are there.
void TaskSchedulerRoot::zeroReferencesIs(bool zero) {
    if (zero)
        trimHistoryTask_.dropTask();
    TaskScheduler::zeroReferencesIs(zero);
}

TaskSchedulerRoot::~TaskSchedulerRoot() { unregisterScheduler(this); }

// The tree

void TaskSchedulerRoot::sanityCheckProcess() const {
    MOX_ASSERT(schedulerThread_.isCurrent() || !schedulerPid_.isCurrent());
}

void TaskSchedulerRoot::taskSchedulerIs(TaskScheduler const* scheduler, bool value) {
    if (taskSchedulers_.change(scheduler, value))
        taskSchedulerNotify(scheduler);
}

bool TaskSchedulerRoot::taskSchedulerDel(TaskScheduler const* scheduler) {
    std::optional<bool> const value = taskSchedulers_.take(scheduler);
    if (value)
        taskSchedulerNotify(scheduler);
    return value.value_or(false);
}

bool TaskSchedulerRoot::taskSchedulerDel(TaskSchedulers::IteratorConst& at) {
    TaskScheduler const* const scheduler = at->first;
    ++at;
    return taskSchedulerDel(scheduler);
}

void TaskSchedulerRoot::taskSchedulerDelAll() {
    for (auto at = taskSchedulers_.begin(); at != taskSchedulers_.end();)
        taskSchedulerDel(at);
}

void TaskSchedulerRoot::taskSchedulerNotify(TaskScheduler const*) {}

bool TaskSchedulerRoot::taskScheduler(TaskScheduler const* scheduler) const {
    bool const* const value = taskSchedulers_.find(scheduler);
    return value && *value;
}

void TaskSchedulerRoot::timerWheelIs(Mox::Ptr<TimerWheel> const& wheel) { timerWheel_ = wheel; }

// Running

/// Trimming is asked for when the tree has become idle, so that it delays nobody.
void TaskSchedulerRoot::schedulerHasRunnableTasksIs(bool hasRunnableTasks) {
    if (hasRunnableTasks == schedulerHasRunnableTasks_)
        return;
    schedulerHasRunnableTasks_ = hasRunnableTasks;
    handleSchedulerHasRunnableTasks();
    handleSchedulerHasRunnableTasks();
    if (!schedulerHasRunnableTasks_)
        trimHistoryTaskSchedule();
}

void TaskSchedulerRoot::suspendedIs(bool suspended) {
    if (suspended == suspended_)
        return;
    suspended_ = suspended;
    handleSuspended();
}

/// Whatever became runnable meanwhile runs at once: passes that came in between were recorded and forgotten.
void TaskSchedulerRoot::handleSuspended() {
    TaskTimeStamp const now = Mox::SteadyClock::now();
    if (suspended_) {
        historyInsert({now, EventType::schedulerSuspended});
    } else {
        historyInsert({now, EventType::schedulerUnsuspended});
        requestSchedulerRunAndRecord(now);
    }
}

Mox::Problem TaskSchedulerRoot::problemOfSuspended(bool suspended) const {
    return suspended || !suspended_ ? "" : problemOfRequest();
}

/// Holds itself: the sink that prints the tables may let the root go before its history's turn.
void TaskSchedulerRoot::printStats(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent,
                                   bool includeNeverRunTasks, bool includeDeadTasks,
                                   bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const {
    Mox::Ptr<TaskSchedulerRoot const> const self = this;
    printSchedulerStats(context, indent, *this, includeNeverRunTasks, includeDeadTasks,
                        displayMemoryAddressOfTasks);
    if (includeSchedulerHistory)
        printHistory(context, indent);
}

} // namespace Kel
