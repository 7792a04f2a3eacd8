#pragma once

#include <mox/Prefetch.h>
#include <mox/Problem.h>
#include <mox/Ptr.h>
#include <mox/ReactorList.h>
#include <mox/String.h>
#include <task/TaskPriority.h>
#include <task/TaskRecord.h>
#include <task/TaskRunQueueLink.h>
#include <task/TaskStat.h>
#include <task/TaskTime.h>

#include <iosfwd>

namespace Kel {

class TaskScheduler;
enum class TaskSchedulerEventType : Mox::U8;

/// A unit of work of a scheduler, with a fixed priority and a name.
///
/// A task has no work function: running it raises its `taskRun` counter, and the application works in a
/// reactor on that counter (`onTaskRun`). A reactor with work left asks `taskShouldYield()` now and then,
/// stops once that is true, and calls `scheduleTask()` again before it returns. For work that is due after a
/// delay use TimerTask.
///
/// Thread rule: the thread of the scheduler's root; a call from another thread of that process is fatal.
///
/// Lifetime: a task dies at once when its last owner lets go: it leaves its queue and its scheduler, which
/// keeps its statistics. An attached reactor is an owner; being scheduled or registered is none. It may be
/// released inside any callback. A task holds its scheduler, unless the scheduler made it for itself: such a
/// task, if somebody still holds it when its scheduler drops it, is an orphan that can no longer be
/// scheduled.
///
/// `TaskIs` makes a task that notifies. A class derived from Task starts switched off, as every entity: its
/// creator calls `hasNotificationActiveIs(true)`.
class MOX_EXPORT Task : public Mox::PtrInterface {
  public:
    class NotifieeConst;
    using Notifiee = Mox::NonConstNotifieeOf<Task, NotifieeConst>;

    static constexpr Mox::Seconds taskQuantumDefault = 0.02;
    static constexpr Mox::U32 taskMagicNumberConstructed() { return TaskRecord::taskMagicNumberConstructed; }
    static constexpr Mox::U32 taskMagicNumberDestroyed() { return TaskRecord::taskMagicNumberDestroyed; }

    static Mox::Ptr<Task> TaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                 Mox::String8 const& name);
    /// Registers the task with the scheduler. Requires: a scheduler, a valid priority.
    Task(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority, Mox::String8 const& name);

    // Virtual operations, in the order of the table.

    void hasNotificationActiveIs(bool active) override;
    Mox::U32 auditErrors(Mox::U32 level) const override;
    void zeroReferencesIs(bool zero) override;
    Mox::Type const* fwkType() const override;
    ~Task() override;

    /// Whether the task waits to run.
    virtual bool taskScheduled() const;
    /// Appends the task to its run queue; nothing happens when it is there already.
    virtual void scheduleTask();
    /// For tests: takes the task off its run queue, if it is there, and runs it at once.
    virtual void taskRunFromTest();
    /// Clears what getStats() measures, without notification.
    virtual void resetStats();
    virtual TaskStat::TaskStatus taskStatus() const;
    virtual void taskBusyIs(bool busy);
    /// For tests: a suspended task is never put on a run queue. Ending the suspension always schedules it.
    virtual void taskSuspendedForTestIs(bool suspended);
    /// For tests: makes taskShouldYield() true at once. Switching it off restores the default quantum.
    virtual void taskForceYieldInTestIs(bool force);
    virtual void taskWorkCountInc(Mox::U64 const& count);
    virtual void taskWorkCountIs(Mox::U64 const& count);
    virtual void taskQuantumViolation500Is(Mox::U32 count);
    virtual void taskQuantumViolation200Is(Mox::U32 count);
    virtual void taskRunInc(Mox::U32 runs);
    virtual void taskRunIs(Mox::U32 runs);
    virtual void taskCurrentlyRunningIs(bool running);
    /// Takes an unlinked task's link as the task's own. Requires: neither is linked, the other is no
    /// bookmark's.
    virtual void taskRunQueueLinkIs(TaskRunQueueLink const& link);
    /// The time after which taskShouldYield() is true. Requires: truncated to nanoseconds, more than 0 and at
    /// most one second.
    virtual void taskQuantumIs(Mox::Seconds const& quantum);
    virtual void taskLastAddedToRunQueueTimeStampIs(TaskTimeStamp const& stamp);
    virtual void taskLastRunTimeStampIs(TaskTimeStamp const& stamp);
    virtual void taskLastSchedulingLatencyInternalIs(TaskTimeDuration const& latency);
    virtual void taskSchedulingLatencyHighWaterMarkInternalIs(TaskTimeDuration const& latency);
    virtual void taskTotalRunTimeInternalIs(TaskTimeDuration const& time);
    virtual void moxDoZombieReactors(bool zombie);

    // Operations

    void unscheduleTask();
    /// Whether the current run has used its quantum.
    bool taskShouldYield() const;
    /// The same at a reading of the clock that was taken since the run began.
    bool taskShouldYieldAt(TaskTimeStamp const& now) const;
    /// Runs the task once, off its queue. `end` gets the end of the run.
    void taskDoRun(TaskTimeStamp const& start, TaskTimeStamp* end);
    TaskStat getStats() const;

    // What stands in the way of an operation that would end in an assertion.

    Mox::Problem problemOfScheduling() const;
    /// Ending a suspension schedules a task that is not scheduled.
    Mox::Problem problemOfSuspendedForTest(bool suspended) const;

    /// Record an event of the task in the root's history, stamped now or as given; nothing for an orphan.
    void taskHistoryInsertNow(TaskSchedulerEventType eventType) const;
    void taskHistoryInsertTs(TaskSchedulerEventType eventType, TaskTimeStamp const& stamp) const;

    // Reading

    /// Null for an orphan.
    Mox::Ptr<TaskScheduler> taskScheduler() const;
    /// The same, not counted, so that a thread that may not touch the count can look.
    TaskScheduler* scheduler() const { return taskScheduler_; }
    TaskPriority taskPriority() const { return record_->taskPriority(); }
    Mox::String taskName() const { return record_->taskName(); }
    TaskKey taskKey() const { return TaskKey::create(this); }
    /// What outlives the task in the history.
    Mox::Ptr<TaskRecord> const& taskRecord() const { return record_; }
    Mox::U32 taskMagicNumber() const { return record_->taskMagicNumber(); }
    TaskRunQueueLink const& taskRunQueueLink() const { return taskRunQueueLink_; }

    /// Whether the task is scheduled, as last told: see taskScheduled().
    bool taskBusy() const { return taskBusy_; }
    bool taskSuspendedForTest() const { return taskSuspendedForTest_; }
    bool taskForceYieldInTest() const { return taskForceYieldInTest_; }
    bool taskCurrentlyRunning() const { return taskCurrentlyRunning_; }

    Mox::U32 taskRun() const { return taskRun_; }
    Mox::U64 taskWorkCount() const { return taskWorkCount_; }
    Mox::U32 taskQuantumViolation500() const { return taskQuantumViolation500_; }
    Mox::U32 taskQuantumViolation200() const { return taskQuantumViolation200_; }
    TaskTimeStamp taskLastAddedToRunQueueTimeStamp() const { return taskLastAddedToRunQueueTimeStamp_; }
    TaskTimeStamp taskLastRunTimeStamp() const { return taskLastRunTimeStamp_; }
    Mox::Seconds taskQuantum() const { return Mox::toSeconds(record_->taskQuantum()); }
    Mox::Seconds taskTotalRunTime() const { return Mox::toSeconds(taskTotalRunTime_); }
    Mox::Seconds taskRunTimeHighWaterMark() const { return Mox::toSeconds(taskRunTimeHighWaterMark_); }
    Mox::Seconds taskLastSchedulingLatency() const { return Mox::toSeconds(taskLastSchedulingLatency_); }
    Mox::Seconds taskSchedulingLatencyHighWaterMark() const {
        return Mox::toSeconds(taskSchedulingLatencyHighWaterMark_);
    }

    /// For reactors.
    Mox::ReactorChain* moxReactors() const { return &reactors_; }

    static Mox::Type const& type();

  protected:
    /// Requires: the calling thread may touch the scheduler tree.
    void sanityCheckCurrentRunningThread() const;
    /// Takes the task off its run queue, if it is there, without updating taskBusy.
    void unscheduleTaskPrivate();
    /// The scheduler drops a task of its own that others may hold.
    void orphan();
    /// For factories: the task's class overrides none of the steps of a run, which then need no call each.
    void stepsAreOwn() { stepsAreOwn_ = true; }
    /// Makes taskBusy what taskScheduled() is; nothing is asked where a task that is queued is busy already.
    /// The last statement of every operation: a callback of it may release the task.
    void updateTaskBusy() {
        if (!(taskBusy_ && taskRunQueueLink_.isLinked()))
            taskBusyIs(taskScheduled());
    }

  private:
    friend class TaskScheduler;                  // the run pass
    friend class TaskRunQueue;                   // the task's place in it
    friend struct TaskRegistryTraits;            // its link in the registry
    template <class> friend class OwnTaskAccess; // which makes it a scheduler's own

    void handleInitialized();
    void handleDestroy();
    void handleTaskBusy() const;
    void handleTaskSuspendedForTest();
    void handleTaskForceYieldInTest();

    /// getStats() without the name, which takes memory.
    TaskStat getStatsUnnamed() const;
    bool wakeScheduler();
    Mox::Problem problemOfWaking() const;
    /// taskDoRun() for who has just taken the task off its queue, and holds it over the run.
    void taskDoRunHeld(TaskTimeStamp const& start, TaskTimeStamp* end);
    template <bool isHeld> void taskDoRun(TaskTimeStamp const& start, TaskTimeStamp* end);
    template <bool isHeld> void tellRun(TaskTimeStamp const& start);
    void record(TaskSchedulerEventType eventType, TaskTimeStamp const& stamp) const;
    template <Mox::U32 notification> void notify() const;
    template <Mox::U32 notification, class T> void change(T& attribute, T value);
    void tellRunning(bool running);
    void measureRun(TaskTimeDuration runTime);
    void countViolation(TaskTimeDuration runTime);
    void doUpdateSchedulingLatency(TaskTimeStamp const& now) {
        TaskTimeDuration const latency = elapsed(taskLastAddedToRunQueueTimeStamp_, now);
        taskLastSchedulingLatency_ = latency;
        if (latency > taskSchedulingLatencyHighWaterMark_)
            taskSchedulingLatencyHighWaterMark_ = latency;
    }

    // Have the caches fetch what a run touches: the head, known by where the link is, is not looked at; of
    // the rest the head knows.
    static void prefetchHead(void const* link);
    void prefetch() const;

    /// The scheduler made the task for itself: the task no longer keeps it alive.
    void ownedBySchedulerIs();

    // The order of the members is that of the cache: what a run touches stands together.

    // Flags; those that every run changes are no bits
    bool taskCurrentlyRunning_ = false;
    bool isInRun_ = false; // whatever the attribute says
    bool taskBusy_ : 1 = false;
    bool taskSuspendedForTest_ : 1 = false;
    bool taskForceYieldInTest_ : 1 = false;
    bool holdsScheduler_ : 1 = true;
    bool stepsAreOwn_ : 1 = false;

    // Fixed at construction
    TaskScheduler* taskScheduler_; // counted while holdsScheduler_
    Mox::Ptr<TaskRecord> const record_;

    // The run queue and the registry
    TaskRunQueueLink taskRunQueueLink_;
    Task* nextRegistered_ = nullptr;

  protected:
    mutable Mox::ReactorList<NotifieeConst> reactors_;

  private:
    // The run pass
    TaskTimeStamp taskLastAddedToRunQueueTimeStamp_{};
    TaskTimeStamp taskLastRunTimeStamp_{};

    // Statistics
    TaskTimeDuration taskLastSchedulingLatency_{0};
    TaskTimeDuration taskSchedulingLatencyHighWaterMark_{0};
    TaskTimeDuration taskTotalRunTime_{0};
    TaskTimeDuration taskRunTimeHighWaterMark_{0};
    Mox::U64 taskWorkCount_ = 0;
    Mox::U32 taskRun_ = 0;
    Mox::U32 taskQuantumViolation500_ = 0;
    Mox::U32 taskQuantumViolation200_ = 0;
};

// A link is as long as prefetchHead() reckons with.
static_assert(sizeof(TaskRunQueueLink) == 3 * sizeof(void*));

inline void Task::prefetchHead(void const* link) {
    constexpr std::ptrdiff_t pointer = sizeof(void*);
    Mox::prefetch(link, -4 * pointer);                                           // where the task begins
    Mox::prefetch(link, std::ptrdiff_t{sizeof(TaskRunQueueLink)} + 2 * pointer); // behind the reactors
}

inline void Task::prefetch() const {
    Mox::prefetch(&taskLastSchedulingLatency_);
    Mox::prefetch(&taskQuantumViolation200_);
    Mox::prefetch(record_.ptr());
    reactors_.prefetch();
}

/// A reactor on a task; override what is needed.
class MOX_EXPORT Task::NotifieeConst : public Mox::NotifieeOf<Task> {
  public:
    enum Notification : Mox::U32 {
        taskBusyChanged,
        taskSuspendedForTestChanged,
        taskForceYieldInTestChanged,
        taskWorkCountChanged,
        taskQuantumViolation500Changed,
        taskQuantumViolation200Changed,
        taskRunChanged,
        taskCurrentlyRunningChanged,
        notificationsOfTask // types that extend Task count on from here
    };

    // Not inline: whether one is overridden is told by its address, which is to be the same in all modules.
    virtual void onTaskBusy();
    virtual void onTaskSuspendedForTest();
    virtual void onTaskForceYieldInTest();
    virtual void onTaskWorkCount();
    virtual void onTaskQuantumViolation500();
    virtual void onTaskQuantumViolation200();
    /// The task runs: do its work.
    virtual void onTaskRun();
    virtual void onTaskCurrentlyRunning();

    void handleNotification(Mox::U32 notification) override;

    using Callback = void (NotifieeConst::*)();
    static constexpr Callback callback(Mox::U32 notification) {
        switch (notification) {
        case taskBusyChanged: return &NotifieeConst::onTaskBusy;
        case taskSuspendedForTestChanged: return &NotifieeConst::onTaskSuspendedForTest;
        case taskForceYieldInTestChanged: return &NotifieeConst::onTaskForceYieldInTest;
        case taskWorkCountChanged: return &NotifieeConst::onTaskWorkCount;
        case taskQuantumViolation500Changed: return &NotifieeConst::onTaskQuantumViolation500;
        case taskQuantumViolation200Changed: return &NotifieeConst::onTaskQuantumViolation200;
        case taskRunChanged: return &NotifieeConst::onTaskRun;
        case taskCurrentlyRunningChanged: return &NotifieeConst::onTaskCurrentlyRunning;
        default: return nullptr;
        }
    }
};

MOX_EXPORT Mox::Ptr<Task> taskFactory(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                      Mox::String8 const& name);

/// The scheduler's name, priority, task name and address: "root:'normal':name@0x...". Requires: not null.
MOX_EXPORT std::ostream& operator<<(std::ostream& stream, Task const* task);

} // namespace Kel
