#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerRoot.h>

#include <mox/Assert.h>
#include <mox/Type.h>
#include <scheduler/detail/HistoryLines.h>
#include <scheduler/detail/IndentedPrint.h>
#include <task/detail/TaskTrace.h>

#include <optional>
#include <string>
#include <vector>

namespace Kel {

using EventType = TaskSchedulerEventType;

namespace {

constexpr Mox::Seconds maxAge = TaskSchedulerRoot::schedulerHistoryMaxAge();

} // namespace

MOX_DEFINE_TYPE(TaskSchedulerRoot, "Kel::TaskSchedulerRoot", &TaskScheduler::type())

// Life and death

Mox::Ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(Mox::String8 const& name) {
    Mox::Ptr<TaskSchedulerRoot> root = new TaskSchedulerRoot(name);
    root->stepsAreOwn();
    root->hasNotificationActiveIs(true);
    return root;
}

Mox::Ptr<TaskSchedulerRoot> taskSchedulerRootFactory(Mox::String8 const& name) {
    return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

TaskSchedulerRoot::TaskSchedulerRoot(Mox::String8 const& name) : TaskScheduler(name, this) {
    registerScheduler(this);
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
    TaskScheduler::printStats(context, indent, includeNeverRunTasks, includeDeadTasks,
                              displayMemoryAddressOfTasks, false);
    if (includeSchedulerHistory)
        printHistory(context, indent);
}

// The history

void TaskSchedulerRoot::clearHistory() {
    MOX_TRACE_AT(taskSchedulerTrace, 8, this << " history cleared");
    history_.clear();
}

/// All lines before the sink gets any of them: it may make events, or let the root go.
void TaskSchedulerRoot::printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const {
    std::vector<std::string> lines;
    for (HistoryLines history(this); history.nextLines(lines);) {
    }
    for (std::string const& line : lines)
        KEL_PRINT_INDENTED(context, indent, "%s\n", line.c_str());
}

void TaskSchedulerRoot::trimHistoryEnabledIs(bool enabled) { trimHistoryEnabled_ = enabled; }

void TaskSchedulerRoot::trimHistoryTaskSchedule() {
    if (!trimHistoryEnabled_) {
        MOX_TRACE_AT(taskSchedulerTrace, 8, this << " trim history disabled");
        return;
    }
    Mox::Ptr<TimerTask> task = trimHistoryTask_.task();
    if (!task)
        task = newTrimHistoryTask(this, TaskPriority::scavenge, "TaskSchedulerTrimHistory");
    task->scheduleTaskLowestDelay(maxAge);
}

/// The reactor is the root's own only once it has its task: making one may run foreign code, or be refused.
Mox::Ptr<TimerTask> TaskSchedulerRoot::newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                          TaskPriority priority, Mox::String8 const& name) {
    trimHistoryTask_.dropTask();
    Mox::Ptr<MoxTrimHistoryTask> const reactor = trimHistoryTask_.newFor(this);
    Mox::Ptr<TimerTask> const task = reactor->newTrimHistoryTask(scheduler, priority, name);
    trimHistoryTask_.ptrIs(reactor);
    return task;
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 name) {
    return trimHistoryTask_ ? trimHistoryTask_.taskThere() : newTrimHistoryTask(scheduler, priority, name);
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::trimHistoryTaskDel() { return trimHistoryTask_.dropTask(); }

/// By the timer, which the wheel has to be there for, the trim task is scheduled.
Mox::Problem TaskSchedulerRoot::problemOfTrimming() const {
    if (!trimHistoryEnabled_)
        return {};
    Mox::Ptr<TimerTask> const task = trimHistoryTask_.task();
    if (!task && !timerWheel_)
        return "the root has no timer wheel to trim its history by";
    TaskScheduler const* const scheduler = task ? task->scheduler() : this;
    return scheduler ? scheduler->problemOfRequest()
                     : "the task that trims the history has lost its scheduler";
}

void TaskSchedulerRoot::handleTrimHistoryTaskRun() {
    Mox::U32 const deleted = history_.deleteOlderThan(Mox::toNanoseconds(maxAge));
    MOX_TRACE_AT(taskSchedulerTrace, 8,
                 this << " Deleted " << deleted << " scheduler events older than " << maxAge << " seconds");
}

void TaskSchedulerRoot::MoxTrimHistoryTask::onTaskRun() {
    if (owner())
        owner()->handleTrimHistoryTaskRun();
}

Mox::Ptr<TimerTask>
TaskSchedulerRoot::MoxTrimHistoryTask::newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                          TaskPriority priority, Mox::String8 const& name) {
    Mox::Ptr<TimerTask> const task = TimerTask::TimerTaskIs(scheduler, priority, name);
    ownTaskIs(task);
    return task;
}

Mox::Ptr<TimerTask>
TaskSchedulerRoot::MoxTrimHistoryTask::trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 const& name) {
    Mox::Ptr<TimerTask> const task = notifier();
    return task ? task : newTrimHistoryTask(scheduler, priority, name);
}

} // namespace Kel
