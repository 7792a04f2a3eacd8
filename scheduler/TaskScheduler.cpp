#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskScheduler.h>

#include <mox/Assert.h>
#include <mox/Exception.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerReport.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <scheduler/detail/IndentedPrint.h>
#include <task/detail/Probes.h>
#include <task/detail/TaskTrace.h>

#include <algorithm>
#include <optional>
#include <ostream>
#include <typeinfo>
#include <utility>

namespace Kel {

using EventType = TaskSchedulerEventType;
using Mox::U32;
using Mox::U64;

namespace {

/// Sets the flag for as long as it lives.
class MakingOwnTask {
  public:
    explicit MakingOwnTask(bool& flag) : flag_(flag) { flag_ = true; }
    ~MakingOwnTask() { flag_ = false; }
    MakingOwnTask(MakingOwnTask const&) = delete;
    MakingOwnTask& operator=(MakingOwnTask const&) = delete;

  private:
    bool& flag_;
};

template <class Map, class Key> auto valueOr0(Map const& map, Key const& key) {
    auto const* const value = map.find(key);
    return value ? *value : 0;
}

/// Adds to an entry, made when there is none. Returns the sum, and whether that changed anything.
template <class Map, class Key> std::pair<U32, bool> add(Map& map, Key const& key, U32 count) {
    if (U32* const there = map.find(key)) {
        *there += count;
        return {*there, count != 0};
    }
    return {map.valueIs(key, count), true};
}

/// The key where an iterator stands, with the iterator moved on.
template <class Iterator> auto stepOver(Iterator& at) {
    auto const key = at->first;
    ++at;
    return key;
}

} // namespace

MOX_DEFINE_TYPE(TaskScheduler, "Kel::TaskScheduler", &Mox::PtrInterface::type())

// Life and death

Mox::Ptr<TaskScheduler> TaskScheduler::TaskSchedulerIs(Mox::String8 const& name, TaskSchedulerRoot* root) {
    Mox::Ptr<TaskScheduler> scheduler = new TaskScheduler(name, root);
    scheduler->stepsAreOwn();
    scheduler->hasNotificationActiveIs(true);
    return scheduler;
}

TaskScheduler::TaskScheduler(Mox::String8 const& name, TaskSchedulerRoot* root)
    : name_(new SchedulerName(name)), root_(root) {
    schedulerInit();
}

void TaskScheduler::schedulerInit() { schedulerLastScheduleTimeStamp_ = Mox::SteadyClock::now(); }

/// Own tasks go while the scheduler is whole, as a task's statistics do: what their end tells needs root,
/// clock and parent, and reaches what derived classes override.
void TaskScheduler::zeroReferencesIs(bool zero) {
    if (zero) {
        ownReactors_.ownerEnds();
        moxDoZombieReactors(true);
    }
    PtrInterface::zeroReferencesIs(zero);
}

/// Tasks hold their scheduler, so that what is left on a queue are entries of others: they are let go, from
/// the lowest priority up, and nothing of them is counted.
TaskScheduler::~TaskScheduler() {
    for (auto queue = runQueues_.end(); queue != runQueues_.begin();)
        (--queue)->list().clear();
}

/// A run that came due while the reactor on it was mute was spent; so was one of the task that resets, where
/// that stands on a scheduler that went on. They are asked for again, last of all and without a look at this
/// scheduler behind the first, since asking may run foreign code.
void TaskScheduler::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    hasNotificationActive_ = active;
    ownReactors_.hasNotificationActiveIs(active);
    if (!active)
        return;
    Mox::Ptr<Task> const reset = resetPass_.pendingTask();
    if (schedulerHasRunnableTasks() && problemOfRequest().empty())
        requestSchedulerRun();
    if (reset && reset->problemOfScheduling().empty())
        reset->scheduleTask();
}

void TaskScheduler::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    ownReactors_.moxDoZombieReactors(zombie);
    zombieReactors_ = zombie;
}

/// What is constant in cost at level 0: counts against counts. Walking the queues is left to level 1.
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

/// The task's own idea of its scheduler is compared, too: a task registered with another scheduler would be
/// queued there and counted here.
void TaskScheduler::taskRegister(Task* task) {
    sanityCheckCurrentRunningThread();
    if (!task)
        return tasksRegisteredIs(task); // which refuses it
    TaskPriority const priority = task->taskPriority();
    MOX_ASSERT_AS("priority.isValid()", priority.isValid());
    MOX_TRACE_AT(taskSchedulerTrace, 4, this << " Register " << task);
    MOX_ASSERT_AS("this == task->taskScheduler()", task->scheduler() == this);
    bool const isNew = stepsAreOwn_ ? tasksRegistered_.insertNew(task) : !tasksRegistered(task->taskKey());
    MOX_ASSERT_AS("__null == tasksRegistered( task->taskKey() )", isNew);
    if (!stepsAreOwn_)
        tasksRegisteredIs(task);
    tasksPerPriorityInc(priority, 1);
}

/// The statistics are taken after the task has left its queue, so that its last wait is in them, and before
/// it leaves the registry. A task that dies while scheduled counts as run, unlike one that is unscheduled.
void TaskScheduler::taskUnregister(Task* task) {
    sanityCheckCurrentRunningThread();
    TaskPriority const priority = task->taskPriority();
    MOX_ASSERT_AS("priority.isValid()", priority.isValid());
    MOX_TRACE_AT(taskSchedulerTrace, 4, this << " Unregister " << task);
    TaskRunQueue& queue = runQueues_[priority];
    if (task->taskRunQueueLink().isLinked())
        queue.leave(*task, Mox::SteadyClock::now(), Leaving::removed);
    queue.forget(*task);
    fileStats(*task);
    Task* const deletedTask = tasksRegisteredDel(task->taskKey());
    MOX_ASSERT_AS("__null != tasksRegistered( task->taskKey() )", deletedTask);
    MOX_ASSERT(task == deletedTask);
    U32 const left = tasksPerPriorityDec(priority, 1);
    MOX_ASSERT_AS("0 < tasksPerPriority( priority )", left != ~U32{0});
    deadTasksPerPriorityInc(priority, 1);
}

/// Where nobody else is told, the record goes straight into that of its name, and takes no memory.
void TaskScheduler::fileStats(Task const& task) {
    TaskStat stat = task.getStatsUnnamed();
    if (stepsAreOwn_ && !deadTasks_.isWatched()) [[likely]]
        return deadTasks_.merge(task.taskRecord()->taskName(), stat);
    stat.taskNameIs(task.taskName());
    deadTasks_.tell(stat, deadTaskStatsInc(stat.taskName(), stat).taskPriority());
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

/// One reading serves event and request: the slip is measured from when the history says that there was work.
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

/// The scheduler holds itself, since its last task may die in the run and take it along; the task is held,
/// since its last owner may let go of it in the run. The next pass is asked for even if no task is left: that
/// pass finds the queues empty and turns the flag off, in one place.
///
/// In line twice, since drivers and groups each come here in every run.
[[gnu::always_inline]] inline void TaskScheduler::pass(TaskTimeStamp const& now) {
    Mox::Ptr<TaskScheduler> const self = this;
    if (root_->suspended()) {
        MOX_TRACE_OF("handleSchedulerRun", taskSchedulerTrace, 8, this << " Suspended");
        root_->historyInsert({now, EventType::schedulerRunIgnoredWhileSuspended});
        return;
    }
    schedulerLastRunTimeStamp_ = now;
    TaskTimeDuration const slip = elapsed(schedulerLastScheduleTimeStamp_, now);
    if (slip > schedulerMaxSchedulerSlip_)
        schedulerMaxSchedulerSlip_ = slip;

    Mox::Ptr<Task> const task = runQueues_.pick(now);
    if (!task) {
        KELTASK_PROBE(idle, schedulerName().data(), schedulerName().size());
        return schedulerHasRunnableTasksIs(false);
    }
    TaskTimeStamp end{};
    task->taskDoRunHeld(now, &end);
    MOX_TRACE_OF("handleSchedulerRun", taskSchedulerTrace, 8,
                 this << " Scheduler completed task, request run");
    requestSchedulerRunAndRecord(end);
}

void TaskScheduler::handleSchedulerRun() {
    MOX_ASSERT_AS("__null != root_", root_);
    pass(Mox::SteadyClock::now());
}

void TaskScheduler::runPass(TaskTimeStamp const& now) { pass(now); }

Task* TaskScheduler::pickOneTask(TaskTimeStamp const& now, TaskPriority from) {
    return runQueues_.pick(now, from);
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority, U32 backToBackRunCount) const {
    return runQueues_.attemptLowerPriorityBump(priority, backToBackRunCount);
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

// Statistics

U64 TaskScheduler::runTaskCount(TaskPriority priority) const {
    MOX_ASSERT(priority.isValid());
    return runQueues_[priority].runsSinceBase();
}

U32 TaskScheduler::runnableTaskCount(TaskPriority priority) const {
    MOX_ASSERT(priority.isValid());
    Mox::S64 const runnableTasks = runQueues_[priority].runnableTasks();
    MOX_ASSERT(runnableTasks >= 0);
    return static_cast<U32>(runnableTasks);
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
    TaskSchedulerQueueStats stats;
    for (U32 p = 0; p < TaskRunQueues::count; ++p) {
        TaskSchedulerPriorityStats entry(TaskPriority::PriorityEnumInstance(p));
        TaskPriority const priority = entry.taskPriority();
        entry.runnableTasksIs(runnableTaskCount(priority));
        entry.idleTasksIs(tasksPerPriority(priority) - entry.runnableTasks());
        entry.deadTasksIs(deadTasksPerPriority(priority));
        entry.totalRunCountIs(runTaskCount(priority));
        stats.priorityIs(entry);
    }
    return stats;
}

U32 TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeIdle) const {
    U32 leftOut = 0;
    for (Task* task = tasksRegistered_.first(); task; task = tasksRegistered_.after(task)) {
        if (includeIdle || task->taskRun() != 0 || task->taskTotalRunTime() != 0.0) // see TaskStat::hasRun
            out->push_back(task->getStats());
        else
            ++leftOut;
    }
    return leftOut;
}

U32 TaskScheduler::getDeadTaskStats(std::vector<TaskStat>* out, bool includeIdle) const {
    return deadTasks_.collect(out, includeIdle);
}

/// All figures are collected before anything is printed: a sink may run tasks, and the tables are to fit
/// together. Behind them nothing of the scheduler is touched, which the sink may let go.
void TaskScheduler::printStats(Mox::Ptr<DumpContext const> const& context, U32 indent,
                               bool includeNeverRunTasks, bool includeDeadTasks,
                               bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const {
    std::vector<TaskStat> stats;
    std::vector<TaskStat> deadStats;
    U32 const leftOut = getTaskStats(&stats, includeNeverRunTasks);
    U32 const deadLeftOut = includeDeadTasks ? getDeadTaskStats(&deadStats, includeNeverRunTasks) : 0;
    printStatsImpl(context, indent, queueStats(), schedulerMaxSchedulerSlip(), &stats, leftOut,
                   includeDeadTasks ? &deadStats : nullptr, deadLeftOut, displayMemoryAddressOfTasks);
    if (includeSchedulerHistory)
        KEL_PRINT_INDENTED(context, indent,
                           "Scheduler history for non root scheduler included in root scheduler");
}

void TaskScheduler::printHistory(Mox::Ptr<DumpContext const> const&, U32) const {
    MOX_FAIL("0 && \"Must override in derived class\"");
}

// Resetting

/// Holds itself: a group may go when it wakes its parent task.
void TaskScheduler::resetStats() {
    Mox::Ptr<TaskScheduler> const self = this;
    Mox::Ptr<Task> const task = resetStatsTaskIs(this, TaskPriority::normal, schedulerName() + ";ResetStats");
    task->scheduleTask();
    resetStatsTaskBookmarkIs(TaskKey());
}

Mox::Ptr<Task> TaskScheduler::resetStatsTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                               TaskPriority priority, Mox::String8 const& name) {
    return resetStatsTask_ ? resetStatsTask_.taskThere() : newResetStatsTask(scheduler, priority, name);
}

/// The former task goes first: two of them would share one bookmark.
Mox::Ptr<Task> TaskScheduler::newResetStatsTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                TaskPriority priority, Mox::String8 const& name) {
    resetStatsTask_.dropTask();
    Mox::Ptr<Task> task;
    {
        MakingOwnTask const making(makesOwnTask_);
        task = Task::TaskIs(scheduler, priority, name);
    }
    resetStatsTask_.madeFor(this)->ownTaskIs(task);
    return task;
}

Mox::Ptr<Task> TaskScheduler::resetter() const { return resetStatsTask_.task(); }

Mox::Ptr<Task> TaskScheduler::resetStatsTaskDel() { return resetStatsTask_.dropTask(); }

void TaskScheduler::resetStatsTaskBookmarkIs(TaskKey const& key) { resetPass_.bookmarkIs(key); }

void TaskScheduler::MoxResetStatsTask::onTaskRun() {
    if (owner())
        owner()->mox_handleResetStatsTask_taskRun();
}

void TaskScheduler::mox_handleResetStatsTask_taskRun() {
    if (resetStatsTaskBookmark() != TaskKey::none())
        handleResetStatsTaskRun();
}

/// Holds itself: a task that is reset, or a name that is told, may let it go, and the reset-stats task may
/// stand on another scheduler.
void TaskScheduler::handleResetStatsTaskRun() {
    Mox::Ptr<TaskScheduler> const self = this;
    resetPass_.run(deadTasks_);
}

// Preconditions

Mox::Problem TaskScheduler::problemOfThread() const {
    bool const allowed = !root_ || root_->schedulerThread().isCurrent() || !root_->schedulerPid().isCurrent();
    return allowed ? "" : "this thread is not the tree's";
}

/// A class that tells nothing of its requests has overridden requestSchedulerRun(), as it must, unless it is
/// one of the two that cannot be run.
Mox::Problem TaskScheduler::problemOfRequest() const {
    if (!root_)
        return "the scheduler has no root";
    if (preconditions_.ofRequest)
        return preconditions_.ofRequest(*this);
    bool const isBare = typeid(*this) == typeid(TaskScheduler) || typeid(*this) == typeid(TaskSchedulerRoot);
    return isBare ? "nothing runs the scheduler: it is neither a driver nor a group" : "";
}

/// Gaining runnable tasks asks for a run. Losing them while there are some would leave these in their queues
/// for good: nobody asks for a run again until a task is scheduled. A root goes idle then, which arms the
/// trim of its history.
Mox::Problem TaskScheduler::problemOfHasRunnableTasks(bool hasRunnableTasks) const {
    if (hasRunnableTasks == schedulerHasRunnableTasks_)
        return {};
    if (hasRunnableTasks)
        return problemOfRequest();
    if (std::ranges::any_of(runQueues_, [](auto const& queue) { return queue.runnableTasks() > 0; }))
        return "tasks are runnable";
    return root_ == this ? root_->problemOfTrimming() : "";
}

Mox::Problem TaskScheduler::problemOfResetStats() const {
    if (resetStatsTask_)
        return resetter() ? resetter()->problemOfScheduling() : ""; // which the reset tells by an exception
    return schedulerHasRunnableTasks() ? "" : problemOfRequest();
}

Mox::Problem TaskScheduler::problemOfRegistering(TaskPriority priority) const {
    if (!root_)
        return "the scheduler has no root";
    Mox::Problem const own =
        preconditions_.ofRegistering ? preconditions_.ofRegistering(*this, priority) : "";
    return own.empty() ? problemOfThread() : own;
}

// Tasks, by key

void TaskScheduler::tasksRegisteredIs(Task* task) {
    if (!task)
        throw Mox::RangeException("null _tasksRegistered parameter to mutator for "
                                  "Kel::TaskScheduler::tasksRegistered not allowed");
    if (tasksRegistered_.insertNew(task))
        tasksRegisteredNotify(task->taskKey());
}

Task* TaskScheduler::tasksRegisteredDel(TaskKey const& key) {
    Task* const task = tasksRegistered_.remove(key);
    if (task)
        tasksRegisteredNotify(key);
    return task;
}

Task* TaskScheduler::tasksRegisteredDel(TasksRegisteredIterator& at) {
    Task* const task = *at;
    if (!task)
        return nullptr;
    at.task_ = tasksRegistered_.after(task);
    return tasksRegisteredDel(task->taskKey());
}

void TaskScheduler::tasksRegisteredDelAll() {
    for (auto at = tasksRegisteredIterator(); at;)
        tasksRegisteredDel(at);
}

void TaskScheduler::tasksRegisteredNotify(TaskKey const&) {}

// Tasks, counted by priority

U32 TaskScheduler::tasksPerPriority(TaskPriority priority) const {
    return valueOr0(tasksPerPriority_, priority);
}

U32 TaskScheduler::tasksPerPriorityInc(TaskPriority priority, U32 count) {
    auto const [total, changed] = add(tasksPerPriority_, priority, count);
    if (changed)
        tasksPerPriorityNotify(priority);
    return total;
}

/// Added modulo 2^32, as counts wrap everywhere.
U32 TaskScheduler::tasksPerPriorityDec(TaskPriority priority, U32 count) {
    return TaskScheduler::tasksPerPriorityInc(priority, 0 - count);
}

void TaskScheduler::tasksPerPriorityIs(TaskPriority priority, U32 count) {
    if (tasksPerPriority_.change(priority, count))
        tasksPerPriorityNotify(priority);
}

U32 TaskScheduler::tasksPerPriorityDel(TaskPriority priority) {
    std::optional<U32> const count = tasksPerPriority_.take(priority);
    if (count)
        tasksPerPriorityNotify(priority);
    return count.value_or(0);
}

U32 TaskScheduler::tasksPerPriorityDel(TasksPerPriority::IteratorConst& at) {
    return tasksPerPriorityDel(stepOver(at));
}

void TaskScheduler::tasksPerPriorityDelAll() {
    for (auto at = tasksPerPriority_.begin(); at != tasksPerPriority_.end();)
        tasksPerPriorityDel(at);
}

void TaskScheduler::tasksPerPriorityNotify(TaskPriority) {}

// Dead tasks, counted by priority

U32 TaskScheduler::deadTasksPerPriority(TaskPriority priority) const {
    return valueOr0(deadTasks_.counts(), priority);
}

U32 TaskScheduler::deadTasksPerPriorityInc(TaskPriority priority, U32 count) {
    auto const [total, changed] = add(deadTasks_.counts(), priority, count);
    if (changed)
        deadTasksPerPriorityNotify(priority);
    return total;
}

void TaskScheduler::deadTasksPerPriorityIs(TaskPriority priority, U32 count) {
    if (deadTasks_.counts().change(priority, count))
        deadTasksPerPriorityNotify(priority);
}

U32 TaskScheduler::deadTasksPerPriorityDel(TaskPriority priority) {
    std::optional<U32> const count = deadTasks_.counts().take(priority);
    if (count)
        deadTasksPerPriorityNotify(priority);
    return count.value_or(0);
}

U32 TaskScheduler::deadTasksPerPriorityDel(TasksPerPriority::IteratorConst& at) {
    return deadTasksPerPriorityDel(stepOver(at));
}

void TaskScheduler::deadTasksPerPriorityDelAll() {
    for (auto at = deadTasksPerPriority().begin(); at != deadTasksPerPriority().end();)
        deadTasksPerPriorityDel(at);
}

void TaskScheduler::deadTasksPerPriorityNotify(TaskPriority) {}

// Statistics of dead tasks, by name

void TaskScheduler::newDeadTaskStats(Mox::String8 const& name, TaskStat const& stat) {
    deadTasks_.stats().valueIs(name, stat);
    deadTaskStatsNotify(name);
}

/// A new name is told to derived schedulers with an empty record; merging into it is not told.
TaskStat TaskScheduler::deadTaskStatsInc(Mox::String8 name, TaskStat const& stat) {
    if (!deadTaskStats(name))
        newDeadTaskStats(name, TaskStat());
    return deadTasks_.merge(name, stat);
}

void TaskScheduler::deadTaskStatsIs(Mox::String8 name, TaskStat const& stat) {
    if (deadTasks_.stats().change(name, stat))
        deadTaskStatsNotify(name);
}

TaskStat TaskScheduler::deadTaskStatsDel(Mox::String8 name) {
    std::optional<TaskStat> const stat = deadTasks_.stats().take(name);
    if (stat)
        deadTaskStatsNotify(name);
    return stat.value_or(TaskStat());
}

TaskStat TaskScheduler::deadTaskStatsDel(DeadTaskStats::IteratorConst& at) {
    return deadTaskStatsDel(stepOver(at));
}

void TaskScheduler::deadTaskStatsDelAll() {
    for (auto at = deadTaskStats().begin(); at != deadTaskStats().end();)
        deadTaskStatsDel(at);
}

void TaskScheduler::deadTaskStatsNotify(Mox::String8) {}

std::ostream& operator<<(std::ostream& stream, TaskScheduler const* scheduler) {
    return stream << scheduler->schedulerName() << ":";
}

} // namespace Kel
