#pragma once

#include <task/Task.h>

#include <kel/TimerWheel.h>

namespace Kel {

/// A task that becomes runnable when a timer expires, instead of, or as well as, when it is scheduled.
///
/// The timer is an entry on the timer wheel of the scheduler's root: it fires at the first 10 ms tick not
/// before its time, and then only puts the task on its run queue. A driver makes the wheel when it is
/// constructed.
///
/// Delays are in seconds and at least one tick (0.01); shorter and negative ones are raised to it, except
/// that exactly 0 schedules at once. A NaN is an assertion. Thread and lifetime rules are those of Task.
class MOX_EXPORT TimerTask : public Task {
  public:
    class NotifieeConst;
    using Notifiee = Mox::NonConstNotifieeOf<TimerTask, NotifieeConst>;
    class MoxTimer;

    static Mox::Ptr<TimerTask> TimerTaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                           Mox::String8 const& name);
    /// Requires, beside what Task requires: the scheduler's root has its timer wheel.
    TimerTask(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority, Mox::String8 const& name);

    void hasNotificationActiveIs(bool active) override;
    Mox::Type const* fwkType() const override;
    ~TimerTask() override;
    /// On the run queue, or the timer is armed.
    bool taskScheduled() const override;
    /// Disarms the timer and puts the task on its run queue.
    void scheduleTask() override;
    void taskRunFromTest() override;
    TaskStat::TaskStatus taskStatus() const override;
    void moxDoZombieReactors(bool zombie) override;

    /// Runs the task that long from now, in place of what was pending; endOfTime stops the timer.
    void scheduleTaskDelay(Mox::Seconds delayIntoFuture);
    /// Runs the task that long from now, unless it runs earlier anyway. Requires: a finite delay.
    void scheduleTaskLowestDelay(Mox::Seconds delayIntoFuture);
    /// Adds a random part, in steps of 1/100, of up to maxJitterPercentage per cent of the delay. The
    /// percentage may be above 100.
    void scheduleTaskJitterUp(Mox::Seconds delayIntoFuture, Mox::U8 maxJitterPercentage);
    /// The same downwards. Requires: maxJitterPercentage <= 100, a delay that is not negative.
    void scheduleTaskJitterDown(Mox::Seconds delayIntoFuture, Mox::U8 maxJitterPercentage);
    /// What these come to: with `resetDelayIfAlreadyRunning` in place of what was pending, else unless the
    /// task runs earlier anyway.
    void scheduleTaskDelayedPrivate(Mox::Seconds delay, bool resetDelayIfAlreadyRunning);
    /// Disarms the timer and takes the task off its run queue.
    void stopTimerTask();

    /// Mox::now() when the task is on its run queue, else when the timer fires; endOfTime when it does not.
    Mox::Seconds currentExpirationTime() const;

    /// False until the constructor has made the timer.
    bool timerTaskInitComplete() const { return timerTaskInitComplete_; }
    void timerTaskInitCompleteIs(bool complete);
    Mox::Ptr<MoxTimer> const& timer() const { return timer_; }

    static Mox::Type const& type();

  private:
    template <class> friend class OwnTaskAccess;

    void handleTimerTaskInit();
    void timerIs(Mox::Ptr<TimerWheel> const& wheel);
    void handleTimer();
    /// Hides Task's: an orphan's timer stays silent.
    void orphan();

    bool timerArmed() const;
    void prefetchTimer() const;
    void disarm();
    void startTimer(Mox::Seconds delay, Mox::Seconds expiry);

    bool timerTaskInitComplete_ = false;
    Mox::Ptr<MoxTimer> timer_;
};

/// The task's entry on the wheel.
class MOX_EXPORT TimerTask::MoxTimer : public TimerWheel::NotifieeConst {
  public:
    /// The task is told of expiries until null is given.
    void timerTaskIs(TimerTask* task) { timerTask_ = task; }
    void onTime() override;

  private:
    TimerTask* timerTask_ = nullptr;
};

/// A reactor on a timer task: what a reactor on a task has, and the end of its construction.
class MOX_EXPORT TimerTask::NotifieeConst : public Mox::NotifieeOf<TimerTask, Task::NotifieeConst> {
  public:
    enum Notification : Mox::U32 { timerTaskInitCompleteChanged = notificationsOfTask };

    virtual void onTimerTaskInitComplete() {}

    void handleNotification(Mox::U32 notification) override;
    static constexpr auto callback(Mox::U32) { return &NotifieeConst::onTimerTaskInitComplete; }
};

MOX_EXPORT Mox::Ptr<TimerTask> timerTaskFactory(Mox::Ptr<TaskScheduler> const& scheduler,
                                                TaskPriority priority, Mox::String8 const& name);

} // namespace Kel
