#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskScheduler.h>

#include <mox/Assert.h>
#include <mox/Exception.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <task/detail/Probes.h>
#include <task/detail/TaskTrace.h>

#include <ostream>
#include <utility>

namespace Kel {

using EventType = TaskSchedulerEventType;
using Mox::U32;
using Mox::U64;

MOX_DEFINE_TYPE(TaskScheduler, "Kel::TaskScheduler", &Mox::PtrInterface::type())

// Life and death

Mox::Ptr<TaskScheduler> TaskScheduler::TaskSchedulerIs(Mox::String8 const& name, TaskSchedulerRoot* root) {
    Mox::Ptr<TaskScheduler> scheduler = new TaskScheduler(name, root);
    scheduler->hasNotificationActiveIs(true);
    return scheduler;
}

TaskScheduler::TaskScheduler(Mox::String8 const& name, TaskSchedulerRoot* root)
    : name_(new SchedulerName(name)), root_(root) {
    schedulerInit();
}

void TaskScheduler::schedulerInit() { schedulerLastScheduleTimeStamp_ = Mox::SteadyClock::now(); }

TaskScheduler::~TaskScheduler() {
    dropOwnTasks();
    TaskScheduler::moxDoZombieReactors(true);
    deadTaskStats_.clear();
    deadTasksPerPriority_.clear();
    for (auto queue = runQueues_.end(); queue != runQueues_.begin();)
        (--queue)->list().clear();
    tasksPerPriority_.clear();
}

void TaskScheduler::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    hasNotificationActive_ = active;
    if (resetStatsTask_)
        resetStatsTask_->hasNotificationActiveIs(active);
}

void TaskScheduler::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    if (resetStatsTask_)
        resetStatsTask_->moxDoZombieReactors(zombie);
    zombieReactors_ = zombie;
}

U32 TaskScheduler::auditErrors(U32 level) const {
    U32 errors = PtrInterface::auditErrors(level);
    U64 registered = 0;
    for (U32 p = 0; p < TaskRunQueues::count; ++p) {
        TaskPriority const priority = TaskPriority::PriorityEnumInstance(p);
        TaskRunQueue const& queue = runQueues_[priority];
        registered += tasksPerPriority(priority);
        errors += queue.runnableTasks() < 0 || queue.runnableTasks() > tasksPerPriority(priority) ? 1u : 0u;
        if (level > 0)
            errors += queue.linkedTasks() != static_cast<U64>(queue.runnableTasks()) ? 1u : 0u;
    }
    return errors + (registered != tasksRegistered_.size() ? 1 : 0);
}

U32 TaskScheduler::moxAuditErrors(U32 level) const {
    U32 errors = auditErrors(level);
    if (level > 0)
        for (Task* task = tasksRegistered_.first(); task; task = tasksRegistered_.after(task))
            errors += task->moxAuditErrors(level) + (task->scheduler() == this ? 0 : 1);
    return errors;
}

// Registration

void TaskScheduler::sanityCheckCurrentRunningThread() const {
    MOX_ASSERT_AS("__null != root_", root_);
    root_->sanityCheckCurrentRunningThread();
}

void TaskScheduler::taskRegister(Task* task) {
    sanityCheckCurrentRunningThread();
    if (!task)
        return tasksRegisteredIs(task); // which refuses it
    TaskPriority const priority = task->taskPriority();
    MOX_ASSERT_AS("priority.isValid()", priority.isValid());
    MOX_TRACE_AT(taskSchedulerTrace, 4, this << " Register " << task);
    MOX_ASSERT_AS("__null == tasksRegistered( task->taskKey() )", !tasksRegistered(task->taskKey()));
    MOX_ASSERT_AS("this == task->taskScheduler()", task->scheduler() == this);
    tasksRegisteredIs(task);
    tasksPerPriorityInc(priority, 1);
}

void TaskScheduler::taskUnregister(Task* task) {
    sanityCheckCurrentRunningThread();
    TaskPriority const priority = task->taskPriority();
    MOX_ASSERT_AS("priority.isValid()", priority.isValid());
    MOX_TRACE_AT(taskSchedulerTrace, 4, this << " Unregister " << task);
    if (task->taskRunQueueLink().isLinked()) {
        TaskTimeStamp const now = Mox::SteadyClock::now();
        taskSchedulerUnlinkTask(now, runQueues_[priority], task);
        task->doUpdateSchedulingLatency(now);
    }
    runQueues_[priority].forget(*task);
    TaskStat const stat = task->getStats();
    deadTaskStatsInc(stat.taskName(), stat);
    MOX_ASSERT_AS("__null != tasksRegistered( task->taskKey() )", tasksRegistered(task->taskKey()));
    Task* const deletedTask = tasksRegisteredDel(task->taskKey());
    MOX_ASSERT(task == deletedTask);
    MOX_ASSERT_AS("0 < tasksPerPriority( priority )", 0 < tasksPerPriority(priority));
    tasksPerPriorityDec(priority, 1);
    deadTasksPerPriorityInc(priority, 1);
}

// The run pass

void TaskScheduler::requestSchedulerRun() { MOX_FAIL("0 && \"Must be implemented by derived class\""); }

void TaskScheduler::requestSchedulerRunAndRecord(TaskTimeStamp const& stamp) {
    schedulerLastScheduleTimeStamp_ = stamp;
    requestSchedulerRun();
}

void TaskScheduler::schedulerHasRunnableTasksIs(bool hasRunnableTasks) {
    if (hasRunnableTasks == schedulerHasRunnableTasks_)
        return;
    schedulerHasRunnableTasks_ = hasRunnableTasks;
    handleSchedulerHasRunnableTasks();
}

void TaskScheduler::handleSchedulerHasRunnableTasks() {
    MOX_ASSERT_AS("__null != root_", root_);
    if (!schedulerHasRunnableTasks_) {
        root_->historyInsert({Mox::SteadyClock::now(), EventType::schedulerIdle});
        return;
    }
    MOX_TRACE_AT(taskSchedulerTrace, 8, this << " Scheduler has runnable tasks, request run");
    TaskTimeStamp const now = Mox::SteadyClock::now();
    root_->historyInsert({now, EventType::schedulerRunnable});
    requestSchedulerRunAndRecord(now);
}

void TaskScheduler::handleSchedulerRun() {
    MOX_ASSERT_AS("__null != root_", root_);
    Mox::Ptr<TaskScheduler> const self = this; // its last task may die in the run
    if (root_->suspended()) {
        MOX_TRACE_AT(taskSchedulerTrace, 8, this << " Suspended");
        root_->historyInsert({Mox::SteadyClock::now(), EventType::schedulerRunIgnoredWhileSuspended});
        return;
    }
    TaskTimeStamp const now = Mox::SteadyClock::now();
    schedulerLastRunTimeStamp_ = now;
    TaskTimeDuration const slip = elapsed(schedulerLastScheduleTimeStamp_, now);
    if (slip > schedulerMaxSchedulerSlip_)
        schedulerMaxSchedulerSlip_ = slip;

    Mox::Ptr<Task> const task = picked(now, runQueues_.pick());
    if (!task) {
        KELTASK_PROBE(idle, schedulerName().data(), schedulerName().size());
        return schedulerHasRunnableTasksIs(false);
    }
    TaskTimeStamp end{};
    task->taskDoRun(now, &end);
    MOX_TRACE_AT(taskSchedulerTrace, 8, this << " Scheduler completed task, request run");
    requestSchedulerRunAndRecord(end);
}

inline Task* TaskScheduler::picked(TaskTimeStamp const& now, Task* task) {
    if (task)
        task->doUpdateSchedulingLatency(now);
    return task;
}

Task* TaskScheduler::pickOneTask(TaskTimeStamp const& now, TaskPriority from) {
    return picked(now, runQueues_.pick(from));
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority, U32 backToBackRunCount) const {
    return runQueues_.attemptLowerPriorityBump(priority, backToBackRunCount);
}

void TaskScheduler::taskSchedulerUnlinkTask(TaskTimeStamp const&, TaskRunQueue& runQueue, Task* task) {
    runQueue.takeToRun(*task);
}

void TaskScheduler::schedulerLastScheduleTimeStampIs(TaskTimeStamp const& stamp) {
    schedulerLastScheduleTimeStamp_ = stamp;
}

void TaskScheduler::schedulerLastRunTimeStampIs(TaskTimeStamp const& stamp) {
    schedulerLastRunTimeStamp_ = stamp;
}

void TaskScheduler::schedulerMaxSchedulerSlipInternalIs(TaskTimeDuration const& slip) {
    schedulerMaxSchedulerSlip_ = slip;
}

std::ostream& operator<<(std::ostream& stream, TaskScheduler const* scheduler) {
    return stream << scheduler->schedulerName() << ":";
}

} // namespace Kel
