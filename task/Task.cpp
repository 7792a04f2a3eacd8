#define MOX_SOURCE_NAME "Task"
#include <task/Task.h>

#include <kel/DisplayPointer.h>
#include <mox/Assert.h>
#include <mox/Type.h>
#include <scheduler/TaskScheduler.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <task/detail/Probes.h>
#include <task/detail/TaskTrace.h>

#include <boost/chrono/chrono_io.hpp>

#include <ostream>
#include <utility>

namespace Kel {

using EventType = TaskSchedulerEventType;
using Mox::U32;
using Mox::U64;

namespace {

/// Requires: the task that this is the record of is there, whatever its reactors did.
void requireAlive(TaskRecord const& record) {
    if (!record.isAlive()) [[unlikely]]
        Mox::assertionFailed("taskMagicNumber_ == taskMagicNumberConstructed()", MOX_SOURCE_NAME, "taskDoRun",
                             __LINE__);
}

} // namespace

MOX_DEFINE_TYPE(Task, "Kel::Task", &Mox::PtrInterface::type())

// Life and death

Mox::Ptr<Task> Task::TaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                            Mox::String8 const& name) {
    Mox::Ptr<Task> task = new Task(scheduler, priority, name);
    task->stepsAreOwn();
    task->hasNotificationActiveIs(true);
    return task;
}

Mox::Ptr<Task> taskFactory(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                           Mox::String8 const& name) {
    return Task::TaskIs(scheduler, priority, name);
}

/// The quantum is there before the task can be reached through the registry, and is set again behind it by
/// the virtual setter, whose trace is to name a registered task.
Task::Task(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority, Mox::String8 const& name)
    : taskScheduler_(scheduler.ptr()),
      record_(TaskRecord::TaskRecordIs(name, priority, scheduler ? scheduler->nameRecord() : nullptr)) {
    record_->taskQuantumIs(TaskTimeDuration(static_cast<Mox::S64>(taskQuantumDefault * 1e9)));
    handleInitialized();
    taskQuantumIs(taskQuantumDefault);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof" // of a type with bases, which both compilers know
/// The reference to the scheduler is taken only once the task is registered: a registration that refuses the
/// task by an exception leaves nothing to be given back.
void Task::handleInitialized() {
    MOX_ASSERT_AS("__null != taskScheduler_", taskScheduler_);
    taskScheduler_->taskRegister(this);
    intrusive_ptr_add_ref(taskScheduler_);
    static_assert(sizeof(void*) != 8 || (offsetof(Task, taskRunQueueLink_) == 4 * sizeof(void*) &&
                                         offsetof(Task, reactors_) == 8 * sizeof(void*)),
                  "prefetchHead() reckons with it");
}
#pragma GCC diagnostic pop

/// The task leaves its scheduler while it is whole: a derived class's status and reactors belong to what is
/// kept of it. Its reactors come first, so that no timer schedules it any more.
void Task::zeroReferencesIs(bool zero) {
    if (zero) {
        moxDoZombieReactors(true);
        handleDestroy();
    }
    PtrInterface::zeroReferencesIs(zero);
}

/// A task whose construction failed was never counted, and comes here without zeroReferencesIs. The scheduler
/// is let go last of all: it may take the root and the history along.
Task::~Task() {
    handleDestroy();
    TaskScheduler* const scheduler = std::exchange(taskScheduler_, nullptr);
    if (scheduler && holdsScheduler_)
        intrusive_ptr_release(scheduler);
}

void Task::handleDestroy() {
    if (!record_->isAlive())
        return;
    if (taskScheduler_)
        taskScheduler_->taskUnregister(this);
    record_->destroyed();
}

/// The flag changes before the reference goes, which may end the scheduler and with it this task's ownership.
void Task::ownedBySchedulerIs() {
    bool const held = holdsScheduler_;
    holdsScheduler_ = false;
    if (held)
        intrusive_ptr_release(taskScheduler_);
}

/// Unregistering comes first, while the task still knows where it is queued. It tells nothing to a scheduler
/// any more, but its own reactors still hear that it has become idle.
void Task::orphan() {
    if (!taskScheduler_)
        return;
    taskScheduler_->taskUnregister(this);
    ownedBySchedulerIs();
    taskScheduler_ = nullptr;
    updateTaskBusy();
}

void Task::hasNotificationActiveIs(bool active) { hasNotificationActive_ = active; }

void Task::moxDoZombieReactors(bool zombie) { zombieReactors_ = zombie; }

U32 Task::auditErrors(U32 level) const {
    return PtrInterface::auditErrors(level) + (record_->isAlive() ? 0 : 1) +
           (taskScheduler_ && taskScheduler_->tasksRegistered(taskKey()) != this ? 1 : 0) +
           (!taskScheduler_ && taskRunQueueLink_.isLinked() ? 1 : 0);
}

Mox::Ptr<TaskScheduler> Task::taskScheduler() const { return taskScheduler_; }

// The history

void Task::taskHistoryInsertNow(EventType eventType) const {
    taskHistoryInsertTs(eventType, Mox::SteadyClock::now());
}

[[gnu::always_inline]] inline void Task::record(EventType eventType, TaskTimeStamp const& stamp) const {
    if (!record_)
        __builtin_unreachable(); // a task has one all its life
    if (taskScheduler_) [[likely]]
        taskScheduler_->root()->historyInsert({stamp, eventType, record_});
}

void Task::taskHistoryInsertTs(EventType eventType, TaskTimeStamp const& stamp) const {
    record(eventType, stamp);
}

// Scheduling

void Task::sanityCheckCurrentRunningThread() const {
    if (taskScheduler_)
        taskScheduler_->root()->sanityCheckCurrentRunningThread();
}

bool Task::taskScheduled() const {
    sanityCheckCurrentRunningThread();
    return taskRunQueueLink_.isLinked();
}

/// The clock is read once for event and latency. Where the scheduler is runnable already, somebody has asked
/// for its next pass, and nothing more is asked; where it is not, waking it may run foreign code.
void Task::scheduleTask() {
    MOX_ASSERT_AS("__null != taskScheduler_", taskScheduler_);
    MOX_ASSERT_AS("taskMagicNumber_ == taskMagicNumberConstructed()", record_->isAlive());
    sanityCheckCurrentRunningThread();
    if (taskRunQueueLink_.isLinked())
        return;
    if (taskSuspendedForTest_) [[unlikely]] {
        taskHistoryInsertNow(EventType::scheduleSus);
        return;
    }
    MOX_TRACE_AT(taskSchedulerTrace, 8, "Scheduled " << this);
    TaskTimeStamp const now = Mox::SteadyClock::now();
    taskScheduler_->runQueue(taskPriority()).enter(*this, now, taskScheduler_->root()->history());
    if (!taskScheduler_->schedulerHasRunnableTasks() && !wakeScheduler()) [[unlikely]]
        return;
    if (!taskBusy_) // else it is what taskScheduled() is
        updateTaskBusy();
}

/// False when a callback on the way has ended the task: waking a scheduler may wake a parent's task, whose
/// reactors may let this task go.
[[gnu::noinline]] bool Task::wakeScheduler() {
    Mox::Ptr<TaskRecord> const record = record_;
    taskScheduler_->schedulerHasRunnableTasksIs(true);
    return record->isAlive();
}

Mox::Problem Task::problemOfScheduling() const {
    if (taskScheduler_ && (taskRunQueueLink_.isLinked() || taskSuspendedForTest_))
        return {};
    return problemOfWaking();
}

Mox::Problem Task::problemOfSuspendedForTest(bool suspended) const {
    return suspended || !taskSuspendedForTest_ || taskScheduled() ? "" : problemOfWaking();
}

/// A scheduler that is runnable already has asked for its run.
Mox::Problem Task::problemOfWaking() const {
    if (!taskScheduler_)
        return "the task has lost its scheduler";
    return taskScheduler_->schedulerHasRunnableTasks() ? "" : taskScheduler_->problemOfRequest();
}

void Task::unscheduleTask() {
    sanityCheckCurrentRunningThread();
    unscheduleTaskPrivate();
    updateTaskBusy();
}

void Task::unscheduleTaskPrivate() {
    if (!taskRunQueueLink_.isLinked())
        return;
    MOX_TRACE_AT(taskSchedulerTrace, 8, "Unscheduled " << this);
    taskScheduler_->runQueue(taskPriority()).leave(*this, Mox::SteadyClock::now(), Leaving::takenBack);
}

// Running

template <U32 notification> void Task::notify() const {
    if (hasNotificationActive())
        reactors_.notify<notification>();
}

template <U32 notification, class T> [[gnu::always_inline]] inline void Task::change(T& attribute, T value) {
    if (attribute == value)
        return;
    attribute = value;
    notify<notification>();
}

/// Holds itself: nobody else need hold a task that a test runs by hand.
void Task::taskRunFromTest() {
    sanityCheckCurrentRunningThread();
    Mox::Ptr<Task> const self = this;
    TaskTimeStamp const now = Mox::SteadyClock::now();
    if (taskRunQueueLink_.isLinked())
        taskScheduler_->runQueue(taskPriority()).leave(*this, now, Leaving::removed);
    TaskTimeStamp end{};
    taskDoRunHeld(now, &end);
}

inline void Task::measureRun(TaskTimeDuration runTime) {
    if (runTime >= 2 * record_->taskQuantum()) [[unlikely]]
        countViolation(runTime);
    else
        MOX_TRACE_OF("taskDoRun", taskSchedulerTrace, 7, "Ran " << this << " used " << runTime);
    if (runTime > taskRunTimeHighWaterMark_)
        taskRunTimeHighWaterMark_ = runTime;
    taskTotalRunTime_ = sum(taskTotalRunTime_, runTime);
}

inline void Task::tellRunning(bool running) {
    if (stepsAreOwn_) [[likely]]
        change<NotifieeConst::taskCurrentlyRunningChanged>(taskCurrentlyRunning_, running);
    else
        taskCurrentlyRunningIs(running);
}

/// A run may be nested in another one of the same task, which is told by the runs under way: the attribute
/// can be set by anybody. The outer run goes on as what is running when the inner one is over.
///
/// Whoever has the task run without holding it may lose it in a callback: the record, which is held here
/// then, tells that before the task is touched again.
template <bool isHeld> inline void Task::tellRun(TaskTimeStamp const& start) {
    Mox::Ptr<TaskRecord> const held = isHeld ? nullptr : record_;
    TaskRecord const* const record = record_.ptr();
    bool const isNested = std::exchange(isInRun_, true);
    TaskTimeStamp const outerStart = std::exchange(taskLastRunTimeStamp_, start);
    auto const requireThere = [&] {
        if constexpr (!isHeld)
            requireAlive(*record);
    };
    tellRunning(true);
    requireThere();
    if (stepsAreOwn_) [[likely]]
        change<NotifieeConst::taskRunChanged>(taskRun_, taskRun_ + 1);
    else
        taskRunInc(1);
    requireThere();
    isInRun_ = isNested;
    tellRunning(isNested);
    requireAlive(*record);
    if (isNested) [[unlikely]]
        taskLastRunTimeStamp_ = outerStart;
}

template <bool isHeld> inline void Task::taskDoRun(TaskTimeStamp const& start, TaskTimeStamp* end) {
    record(EventType::runStart, start);
    KELTASK_TASK_PROBE(run_start, this, taskLastSchedulingLatency_.count());
    if constexpr (!isHeld)
        MOX_ASSERT_AS("!taskRunQueueLink_.isLinked()", !taskRunQueueLink_.isLinked());
    MOX_TRACE_AT(taskSchedulerTrace, 8, "Running " << this);
    tellRun<isHeld>(start);
    TaskTimeStamp const now = Mox::SteadyClock::now();
    *end = now;
    measureRun(elapsed(start, now));
    record(EventType::runEnd, now);
    KELTASK_TASK_PROBE(run_end, this, elapsed(start, now).count());
    updateTaskBusy();
}

void Task::taskDoRun(TaskTimeStamp const& start, TaskTimeStamp* end) { taskDoRun<false>(start, end); }
void Task::taskDoRunHeld(TaskTimeStamp const& start, TaskTimeStamp* end) { taskDoRun<true>(start, end); }

void Task::countViolation(TaskTimeDuration runTime) {
    TaskTimeDuration const quantum = record_->taskQuantum();
    KELTASK_TASK_PROBE(violation, this, runTime.count(), quantum.count());
    MOX_TRACE_OF("taskDoRun", taskSchedulerTrace, 5,
                 "Ran " << this << " used " << runTime << " "
                        << Mox::toSeconds(runTime) / Mox::toSeconds(quantum) * 100 << "% violation");
    if (runTime < 5 * quantum)
        ++taskQuantumViolation200_;
    else
        ++taskQuantumViolation500_;
}

/// A clock that ran backwards would let the task run for ever: that is told, not hidden.
bool Task::taskShouldYieldAt(TaskTimeStamp const& now) const {
    if (now < taskLastRunTimeStamp_) [[unlikely]]
        Mox::assertionFailed("now >= taskLastRunTimeStamp_", MOX_SOURCE_NAME, "taskShouldYield", __LINE__);
    return elapsed(taskLastRunTimeStamp_, now) >= record_->taskQuantum();
}

bool Task::taskShouldYield() const { return taskShouldYieldAt(Mox::SteadyClock::now()); }

/// The trace comes before the assertions, so that a quantum out of bounds is on the record when the process
/// ends.
void Task::taskQuantumIs(Mox::Seconds const& quantum) {
    TaskTimeDuration const internal = Mox::toNanoseconds(quantum);
    U32 const level = quantum == taskQuantumDefault ? 9 : 4;
    record_->taskQuantumIs(internal);
    MOX_TRACE_AT(taskSchedulerTrace, level, "Set quantum " << this << " to " << internal);
    MOX_ASSERT_AS("taskQuantumInternal_ > TaskTimeDuration( 0 )", internal > TaskTimeDuration(0));
    MOX_ASSERT_AS("taskQuantumInternal_ <= boost::chrono::seconds( 1 )",
                  internal <= boost::chrono::seconds(1));
}

// Statistics

TaskStat::TaskStatus Task::taskStatus() const {
    TaskStat::TaskStatus status;
    status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
    status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
    status.taskSuspendedForTestIs(taskSuspendedForTest_);
    return status;
}

TaskStat Task::getStats() const {
    TaskStat stat = getStatsUnnamed();
    stat.taskNameIs(taskName());
    return stat;
}

TaskStat Task::getStatsUnnamed() const {
    TaskStat stat;
    stat.taskKeyIs(taskKey());
    stat.taskPriorityIs(taskPriority());
    stat.taskRunIs(taskRun_);
    stat.taskTotalRunTimeIs(taskTotalRunTime());
    stat.taskWorkCountIs(taskWorkCount_);
    stat.taskQuantumViolation500Is(taskQuantumViolation500_);
    stat.taskQuantumViolation200Is(taskQuantumViolation200_);
    stat.taskRunTimeHighWaterMarkIs(taskRunTimeHighWaterMark());
    stat.taskLastSchedulingLatencyIs(taskLastSchedulingLatency());
    stat.taskSchedulingLatencyHighWaterMarkIs(taskSchedulingLatencyHighWaterMark());
    stat.taskStatusIs(taskStatus());
    return stat;
}

void Task::resetStats() {
    taskTotalRunTime_ = TaskTimeDuration(0);
    taskWorkCount_ = 0;
    taskRunTimeHighWaterMark_ = TaskTimeDuration(0);
    taskQuantumViolation500_ = 0;
    taskQuantumViolation200_ = 0;
    taskLastSchedulingLatency_ = TaskTimeDuration(0);
    taskSchedulingLatencyHighWaterMark_ = TaskTimeDuration(0);
    taskRun_ = 0;
}

// Attributes that notify

void Task::taskBusyIs(bool busy) {
    if (taskBusy_ == busy)
        return;
    taskBusy_ = busy;
    handleTaskBusy();
    notify<NotifieeConst::taskBusyChanged>();
}

void Task::handleTaskBusy() const { taskHistoryInsertNow(taskBusy_ ? EventType::busy : EventType::idle); }

/// Ending a suspension schedules the task, whose callbacks may let it go: the record tells.
void Task::taskSuspendedForTestIs(bool suspended) {
    if (taskSuspendedForTest_ == suspended)
        return;
    taskSuspendedForTest_ = suspended;
    Mox::Ptr<TaskRecord> const record = record_;
    handleTaskSuspendedForTest();
    if (record->isAlive())
        notify<NotifieeConst::taskSuspendedForTestChanged>();
}

void Task::handleTaskSuspendedForTest() {
    if (taskSuspendedForTest_) {
        MOX_TRACE_AT(taskSchedulerTrace, 1, "Suspend " << this);
        taskHistoryInsertNow(EventType::suspendOn);
        unscheduleTask();
    } else {
        MOX_TRACE_AT(taskSchedulerTrace, 1, "Unsuspend " << this);
        taskHistoryInsertNow(EventType::suspendOff);
        if (!taskScheduled())
            scheduleTask();
    }
}

void Task::taskForceYieldInTestIs(bool force) {
    if (taskForceYieldInTest_ == force)
        return;
    taskForceYieldInTest_ = force;
    handleTaskForceYieldInTest();
    notify<NotifieeConst::taskForceYieldInTestChanged>();
}

/// The forced quantum of zero is no quantum that taskQuantumIs() would take; that one brings back the
/// default, which is not the quantum that the task may have had before.
void Task::handleTaskForceYieldInTest() {
    if (taskForceYieldInTest_) {
        taskHistoryInsertNow(EventType::frcYieldOn);
        record_->taskQuantumIs(TaskTimeDuration(0));
        MOX_TRACE_AT(taskSchedulerTrace, 1, "Set quantum " << this << " to " << 0);
    } else {
        taskHistoryInsertNow(EventType::frcYieldOff);
        taskQuantumIs(taskQuantumDefault);
    }
}

void Task::taskWorkCountInc(U64 const& count) {
    change<NotifieeConst::taskWorkCountChanged>(taskWorkCount_, taskWorkCount_ + count);
}

void Task::taskWorkCountIs(U64 const& count) {
    change<NotifieeConst::taskWorkCountChanged>(taskWorkCount_, count);
}

void Task::taskQuantumViolation500Is(U32 count) {
    change<NotifieeConst::taskQuantumViolation500Changed>(taskQuantumViolation500_, count);
}

void Task::taskQuantumViolation200Is(U32 count) {
    change<NotifieeConst::taskQuantumViolation200Changed>(taskQuantumViolation200_, count);
}

void Task::taskRunInc(U32 runs) { change<NotifieeConst::taskRunChanged>(taskRun_, taskRun_ + runs); }

void Task::taskRunIs(U32 runs) { change<NotifieeConst::taskRunChanged>(taskRun_, runs); }

void Task::taskCurrentlyRunningIs(bool running) {
    if (taskCurrentlyRunning_ == running)
        return;
    taskCurrentlyRunning_ = running;
    notify<NotifieeConst::taskCurrentlyRunningChanged>();
}

void Task::NotifieeConst::onTaskBusy() {}
void Task::NotifieeConst::onTaskSuspendedForTest() {}
void Task::NotifieeConst::onTaskForceYieldInTest() {}
void Task::NotifieeConst::onTaskWorkCount() {}
void Task::NotifieeConst::onTaskQuantumViolation500() {}
void Task::NotifieeConst::onTaskQuantumViolation200() {}
void Task::NotifieeConst::onTaskRun() {}
void Task::NotifieeConst::onTaskCurrentlyRunning() {}

void Task::NotifieeConst::handleNotification(U32 notification) {
    if (Callback const onNotification = callback(notification))
        (this->*onNotification)();
}

// Plain attributes

void Task::taskRunQueueLinkIs(TaskRunQueueLink const& link) {
    MOX_ASSERT_AS("!link.isLinked()", !link.isLinked());
    MOX_ASSERT_AS("!link.isBookmark()", !link.isBookmark());
    MOX_ASSERT_AS("!taskRunQueueLink_.isLinked()", !taskRunQueueLink_.isLinked());
    taskRunQueueLink_ = link;
}

void Task::taskLastAddedToRunQueueTimeStampIs(TaskTimeStamp const& stamp) {
    taskLastAddedToRunQueueTimeStamp_ = stamp;
}

void Task::taskLastRunTimeStampIs(TaskTimeStamp const& stamp) { taskLastRunTimeStamp_ = stamp; }

void Task::taskLastSchedulingLatencyInternalIs(TaskTimeDuration const& latency) {
    taskLastSchedulingLatency_ = latency;
}

void Task::taskSchedulingLatencyHighWaterMarkInternalIs(TaskTimeDuration const& latency) {
    taskSchedulingLatencyHighWaterMark_ = latency;
}

void Task::taskTotalRunTimeInternalIs(TaskTimeDuration const& time) { taskTotalRunTime_ = time; }

std::ostream& operator<<(std::ostream& stream, Task const* task) {
    TaskRecord const& record = *task->taskRecord();
    return stream << record.schedulerName() << ":'" << record.taskPriority() << "':" << record.taskName()
                  << "@" << DisplayPointer(task);
}

} // namespace Kel
