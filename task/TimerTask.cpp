#define MOX_SOURCE_NAME "Task"
#include <task/TimerTask.h>

#include <mox/Assert.h>
#include <mox/Type.h>
#include <scheduler/TaskScheduler.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <task/detail/Probes.h>
#include <task/detail/TaskTrace.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Kel {

using EventType = TaskSchedulerEventType;
using Mox::Seconds;

namespace {

constexpr Seconds tick = TaskScheduler::timerWheelTickInMsec() / 1000.0;

/// Sums of finite delays stay finite: endOfTime would stop the timer.
Seconds finite(Seconds delay) {
    constexpr Seconds most = std::numeric_limits<Seconds>::max();
    return std::clamp(delay, -most, most);
}

} // namespace

MOX_DEFINE_TYPE(TimerTask, "Kel::TimerTask", &Task::type())

// Life and death

Mox::Ptr<TimerTask> TimerTask::TimerTaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                           Mox::String8 const& name) {
    Mox::Ptr<TimerTask> task = new TimerTask(scheduler, priority, name);
    task->stepsAreOwn();
    task->hasNotificationActiveIs(true);
    return task;
}

Mox::Ptr<TimerTask> timerTaskFactory(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                     Mox::String8 const& name) {
    return TimerTask::TimerTaskIs(scheduler, priority, name);
}

TimerTask::TimerTask(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                     Mox::String8 const& name)
    : Task(scheduler, priority, name) {
    handleTimerTaskInit();
}

void TimerTask::handleTimerTaskInit() {
    timerIs(scheduler()->root()->timerWheel());
    timer_->timeMinIs(Mox::endOfTime);
    timerTaskInitCompleteIs(true);
}

void TimerTask::timerIs(Mox::Ptr<TimerWheel> const& wheel) {
    MOX_ASSERT_AS("__null != timerWheel", wheel);
    timer_ = new MoxTimer;
    timer_->timerTaskIs(this);
    timer_->notifierIs(wheel);
}

/// The timer outlives the task when somebody else holds it; it forgets the task before the task is gone.
TimerTask::~TimerTask() {
    moxDoZombieReactors(true);
    timer_->timerTaskIs(nullptr);
    timer_ = nullptr;
}

/// Disarmed first: an orphan's timer would schedule it where no scheduler is.
void TimerTask::orphan() {
    disarm();
    Task::orphan();
}

void TimerTask::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    Task::hasNotificationActiveIs(active);
    timer_->hasNotificationActiveIs(active);
}

/// A timer that is mute for good is taken off the wheel, too, or the wheel would wake the loop for nobody.
void TimerTask::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    if (zombie)
        disarm();
    timer_->moxDoZombieReactors(zombie);
    Task::moxDoZombieReactors(zombie);
}

// The timer

void TimerTask::MoxTimer::onTime() {
    if (timerTask_)
        timerTask_->handleTimer();
}

/// An expiry does what scheduling by hand does; the run itself is the pass's.
void TimerTask::handleTimer() {
    KELTASK_TASK_PROBE(timer, this);
    if (timerTaskInitComplete_)
        scheduleTask();
}

/// With many timers nothing of this one is in a cache: it is fetched while the clock is read.
inline void TimerTask::prefetchTimer() const {
    Mox::prefetch(taskRecord().ptr());
    timer_->prefetch();
}

bool TimerTask::timerArmed() const { return timer_->timeMin() != Mox::endOfTime; }

void TimerTask::disarm() { timer_->timeMinIs(Mox::endOfTime); }

bool TimerTask::taskScheduled() const { return Task::taskScheduled() || timerArmed(); }

TaskStat::TaskStatus TimerTask::taskStatus() const {
    sanityCheckCurrentRunningThread();
    TaskStat::TaskStatus status = Task::taskStatus();
    status.taskTimerIs(true);
    status.taskTimerRunningIs(timerArmed());
    return status;
}

Seconds TimerTask::currentExpirationTime() const {
    sanityCheckCurrentRunningThread();
    return taskRunQueueLink().isLinked() ? Mox::now() : timer_->timeMin();
}

// Scheduling

/// Suspended, the task stays off its queue and has lost its timer, and is as busy as it was until its next
/// operation.
void TimerTask::scheduleTask() {
    disarm();
    Task::scheduleTask();
}

/// Busy is asked once more behind the run: the run may have armed the timer, or it was armed when the run
/// began.
void TimerTask::taskRunFromTest() {
    Mox::Ptr<TimerTask> const self = this;
    disarm();
    Task::taskRunFromTest();
    updateTaskBusy();
}

void TimerTask::scheduleTaskDelay(Seconds delayIntoFuture) {
    prefetchTimer();
    if (delayIntoFuture > std::numeric_limits<Seconds>::max())
        stopTimerTask();
    else
        scheduleTaskDelayedPrivate(delayIntoFuture, true);
}

void TimerTask::scheduleTaskLowestDelay(Seconds delayIntoFuture) {
    sanityCheckCurrentRunningThread();
    MOX_ASSERT_AS("delayIntoFuture != Mox::endOfTime", delayIntoFuture != Mox::endOfTime);
    scheduleTaskDelayedPrivate(delayIntoFuture, false);
}

void TimerTask::scheduleTaskJitterUp(Seconds delayIntoFuture, Mox::U8 maxJitterPercentage) {
    sanityCheckCurrentRunningThread();
    MOX_ASSERT_AS("!std::isnan( delayIntoFuture )", !std::isnan(delayIntoFuture));
    if (delayIntoFuture > std::numeric_limits<Seconds>::max())
        return stopTimerTask();
    MOX_ASSERT_AS("__null != taskScheduler_", scheduler());
    Seconds const maxJitter = finite(finite(delayIntoFuture) * maxJitterPercentage);
    Seconds const offset = finite(scheduler()->root()->jitterDraw() * maxJitter / 10000);
    Seconds const delay = finite(delayIntoFuture + offset);
    MOX_TRACE_AT(taskSchedulerTrace, 8,
                 "Timer jitterUp " << this << " delay " << delayIntoFuture << " + " << offset << " = "
                                   << delay);
    scheduleTaskDelayedPrivate(delay, true);
}

/// In the order in which the offset is computed no rounding takes it beyond the delay: the factor is at most
/// 1.
void TimerTask::scheduleTaskJitterDown(Seconds delayIntoFuture, Mox::U8 maxJitterPercentage) {
    sanityCheckCurrentRunningThread();
    MOX_ASSERT_AS("!std::isnan( delayIntoFuture )", !std::isnan(delayIntoFuture));
    if (delayIntoFuture > std::numeric_limits<Seconds>::max())
        return stopTimerTask();
    MOX_ASSERT(maxJitterPercentage <= 100);
    MOX_ASSERT_AS("__null != taskScheduler_", scheduler());
    Seconds const offset =
        delayIntoFuture * (scheduler()->root()->jitterDraw() * maxJitterPercentage / 10000.0);
    MOX_ASSERT(offset <= delayIntoFuture);
    Seconds const delay = delayIntoFuture - offset;
    MOX_TRACE_AT(taskSchedulerTrace, 8,
                 "Timer jitterDown " << this << " delay " << delayIntoFuture << " - " << offset << " = "
                                     << delay);
    scheduleTaskDelayedPrivate(delay, true);
}

/// The delay is raised to a tick before it is added to now: the wheel fires no earlier than that anyway, and
/// the trace tells what really happens. A sum that is no longer finite would stop the timer, and stays the
/// greatest time.
void TimerTask::scheduleTaskDelayedPrivate(Seconds delay, bool resetDelayIfAlreadyRunning) {
    sanityCheckCurrentRunningThread();
    MOX_ASSERT_AS("!std::isnan( delayIntoFuture )", !std::isnan(delay));
    MOX_ASSERT_AS("__null != taskScheduler_", scheduler());
    if (delay == 0.0)
        return scheduleTask();
    bool const onRunQueue = taskRunQueueLink().isLinked();
    if (!resetDelayIfAlreadyRunning && onRunQueue) {
        MOX_TRACE_AT(taskSchedulerTrace, 8, "Already on runQueue " << this);
        return;
    }
    if (onRunQueue)
        unscheduleTaskPrivate();
    Seconds const raised = delay * 1000 < scheduler()->timerWheelTickInMsec() ? tick : delay;
    Seconds const expiry = finite(Mox::now() + raised);
    if (!resetDelayIfAlreadyRunning && expiry > timer_->timeMin()) {
        MOX_TRACE_AT(taskSchedulerTrace, 8,
                     "Timer already running " << this << " expire " << timer_->timeMin() << " < " << expiry);
        return;
    }
    startTimer(raised, expiry);
}

void TimerTask::startTimer(Seconds delay, Seconds expiry) {
    MOX_TRACE_OF("scheduleTaskDelayedPrivate", taskSchedulerTrace, 8,
                 "Timer started " << this << " delay " << delay);
    timer_->timeMinIs(expiry);
    taskHistoryInsertNow(EventType::timerStart);
    updateTaskBusy();
}

/// Only a timer that was armed leaves an event; taking the task off its queue leaves its own.
void TimerTask::stopTimerTask() {
    sanityCheckCurrentRunningThread();
    if (timerArmed()) {
        MOX_TRACE_AT(taskSchedulerTrace, 8, "Timer stopped " << this << ", was running");
        taskHistoryInsertNow(EventType::timerStop);
        disarm();
    } else {
        MOX_TRACE_AT(taskSchedulerTrace, 8, "Timer stopped " << this << ", was not running");
    }
    unscheduleTaskPrivate();
    updateTaskBusy();
}

void TimerTask::timerTaskInitCompleteIs(bool complete) {
    if (timerTaskInitComplete_ == complete)
        return;
    timerTaskInitComplete_ = complete;
    if (hasNotificationActive())
        reactors_.notify<NotifieeConst::timerTaskInitCompleteChanged, NotifieeConst>();
}

void TimerTask::NotifieeConst::handleNotification(Mox::U32 notification) {
    if (notification == timerTaskInitCompleteChanged)
        onTimerTaskInitComplete();
    else
        Task::NotifieeConst::handleNotification(notification);
}

} // namespace Kel
