#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerRoot.h>

#include <mox/Assert.h>
#include <mox/Exception.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerReport.h>
#include <task/detail/TaskTrace.h>

#include <utility>

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

TaskSchedulerRoot::~TaskSchedulerRoot() {
    dropOwnTasks();
    unregisterScheduler(this);
    TaskSchedulerRoot::moxDoZombieReactors(true);
    history_.clear();
    taskSchedulers_.clear();
}

void TaskSchedulerRoot::dropOwnTasks() {
    trimHistoryTaskDel();
    TaskScheduler::dropOwnTasks();
}

void TaskSchedulerRoot::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    TaskScheduler::hasNotificationActiveIs(active);
    if (trimHistoryTask_)
        trimHistoryTask_->hasNotificationActiveIs(active);
}

void TaskSchedulerRoot::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    if (trimHistoryTask_)
        trimHistoryTask_->moxDoZombieReactors(zombie);
    TaskScheduler::moxDoZombieReactors(zombie);
}

// The tree

void TaskSchedulerRoot::sanityCheckProcess() const {
    MOX_ASSERT(schedulerThread_.isCurrent() || !schedulerPid_.isCurrent());
}

void TaskSchedulerRoot::taskSchedulerIs(TaskScheduler const* scheduler, bool value) {
    taskSchedulers_.valueIs(scheduler, value);
    taskSchedulerNotify(scheduler);
}

bool TaskSchedulerRoot::taskSchedulerDel(TaskScheduler const* scheduler) {
    bool const value = taskScheduler(scheduler);
    if (taskSchedulers_.erase(scheduler))
        taskSchedulerNotify(scheduler);
    return value;
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

void TaskSchedulerRoot::handleSuspended() {
    TaskTimeStamp const now = Mox::SteadyClock::now();
    if (suspended_) {
        historyInsert({now, EventType::schedulerSuspended});
    } else {
        historyInsert({now, EventType::schedulerUnsuspended});
        requestSchedulerRunAndRecord(now);
    }
}

void TaskSchedulerRoot::printStats(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent,
                                   bool includeNeverRunTasks, bool includeDeadTasks,
                                   bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const {
    printSchedulerStats(context, indent, *this, includeNeverRunTasks, includeDeadTasks,
                        displayMemoryAddressOfTasks);
    if (includeSchedulerHistory)
        printHistory(context, indent);
}

} // namespace Kel
