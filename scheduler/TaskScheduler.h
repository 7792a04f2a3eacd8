#pragma once

#include <kel/DumpContext.h>
#include <mox/HashMap.h>
#include <mox/OwnReactors.h>
#include <mox/Problem.h>
#include <scheduler/DeadTasks.h>
#include <scheduler/OwnTask.h>
#include <scheduler/ResetPass.h>
#include <scheduler/TaskRunQueues.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/Task.h>

#include <iosfwd>
#include <vector>

namespace Kel {

class TaskSchedulerRoot;

/// How the registry of tasks reaches into a task: it holds plain pointers, linked through the tasks
/// themselves.
struct TaskRegistryTraits {
    using Key = TaskKey;
    using Node = Task;
    static TaskKey key(Task const& task) { return task.taskKey(); }
    static Mox::U32 code(Task const& task) { return Mox::hashOrder(task.taskKey()); }
    static Task*& next(Task& task) { return task.nextRegistered_; }
};

/// Chooses, runs and measures tasks: the registry of its tasks, a run queue for each priority, a cooperative
/// run pass that runs one task, and statistics that outlive the tasks.
///
/// It never runs by itself. When it gains runnable tasks, and after every task that it runs, it asks to be
/// run again through `requestSchedulerRun()`, which a concrete scheduler serves by calling
/// `handleSchedulerRun()` later, never at once. Applications use a driver (TaskSchedulerEventLoop) or a group
/// within one.
///
/// Thread rule: the root's scheduler thread; registration and scheduling check it. A forked child may go on
/// with the tree in its own process.
///
/// Lifetime: counted; its tasks hold it, it holds no task but its own. It does not hold its root, which its
/// owner keeps alive. When its last owner lets go it drops the tasks that it made for itself, and makes its
/// reactors zombies, while it is whole.
///
/// A task's statistics are kept under its name after its death: an entry takes 240 bytes with a name of 16
/// characters (64 bit), and goes with `resetStats()`. Names should come from a bounded set; the dead table of
/// the report and the DeadCount column of its first table show operators how many there are.
class MOX_EXPORT TaskScheduler : public Mox::PtrInterface {
  public:
    using TasksRegistered = Mox::HashTable<TaskRegistryTraits>;
    using TasksPerPriority = DeadTasks::CountByPriority;
    using DeadTaskStats = DeadTasks::StatsByName;
    class MoxResetStatsTask;

    /// Where a walk over the registered tasks stands.
    class TasksRegisteredIterator {
      public:
        Task* operator*() const { return task_; }
        explicit operator bool() const { return task_ != nullptr; }

      private:
        friend class TaskScheduler;
        explicit TasksRegisteredIterator(Task* task) : task_(task) {}
        Task* task_;
    };

    static Mox::Ptr<TaskScheduler> TaskSchedulerIs(Mox::String8 const& name, TaskSchedulerRoot* root);
    TaskScheduler(Mox::String8 const& name, TaskSchedulerRoot* root);

    // Virtual operations, in the order of the table.

    void hasNotificationActiveIs(bool active) override;
    Mox::U32 moxAuditErrors(Mox::U32 level) const override;
    Mox::U32 auditErrors(Mox::U32 level) const override;
    void zeroReferencesIs(bool zero) override;
    Mox::Type const* fwkType() const override;
    ~TaskScheduler() override;

    /// Asks for a call of handleSchedulerRun() as soon as possible. The base has no way to: an assertion.
    virtual void requestSchedulerRun();
    /// Called by the task's constructor. Requires: a valid priority, a task that is not registered.
    virtual void taskRegister(Task* task);
    /// Prints the statistics report. A class that overrides it says `using TaskScheduler::printStats;`, or
    /// its short form, below, is hidden.
    virtual void printStats(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent,
                            bool includeNeverRunTasks, bool includeDeadTasks,
                            bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const;
    /// Prints the events of the tree's history. The base has none: an assertion.
    virtual void printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const;
    /// Merges the record of a task that died into the entry of that name; returns the merged record.
    virtual TaskStat deadTaskStatsInc(Mox::String8 name, TaskStat const& stat);
    virtual Mox::U32 deadTasksPerPriorityInc(TaskPriority priority, Mox::U32 count);
    virtual Mox::U32 tasksPerPriorityInc(TaskPriority priority, Mox::U32 count);
    virtual Mox::U32 tasksPerPriorityDec(TaskPriority priority, Mox::U32 count);
    /// Told of changes only: a task that joins others asks for nothing.
    virtual void schedulerHasRunnableTasksIs(bool hasRunnableTasks);
    /// Where the reset pass goes on: the zero key starts a new pass, the key with every bit set suppresses
    /// it.
    virtual void resetStatsTaskBookmarkIs(TaskKey const& key);
    /// Drops the reset-stats task; returns it (null if none), orphaned if it was this scheduler's own.
    virtual Mox::Ptr<Task> resetStatsTaskDel();
    /// The reset-stats task, made with these arguments when there is none; the scheduler given is this one,
    /// or one that does not stand below it, which the task would keep alive. Throws Mox::RangeException
    /// ("null ValidPtr") when its reactor has lost it.
    virtual Mox::Ptr<Task> resetStatsTaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                            Mox::String8 const& name);
    virtual void moxDoZombieReactors(bool zombie);

    // The ...Del operations return what they removed; ...Notify is called after each change of an entry, for
    // derived schedulers, and does nothing here.
    virtual TaskStat deadTaskStatsDel(Mox::String8 name);
    virtual TaskStat deadTaskStatsDel(DeadTaskStats::IteratorConst& at);
    virtual void deadTaskStatsNotify(Mox::String8 name);
    virtual void deadTaskStatsIs(Mox::String8 name, TaskStat const& stat);
    virtual Mox::U32 deadTasksPerPriorityDel(TaskPriority priority);
    virtual Mox::U32 deadTasksPerPriorityDel(TasksPerPriority::IteratorConst& at);
    virtual void deadTasksPerPriorityNotify(TaskPriority priority);
    virtual void deadTasksPerPriorityIs(TaskPriority priority, Mox::U32 count);
    virtual Task* tasksRegisteredDel(TaskKey const& key);
    virtual Task* tasksRegisteredDel(TasksRegisteredIterator& at);
    virtual void tasksRegisteredNotify(TaskKey const& key);
    /// Throws Mox::RangeException for a null task.
    virtual void tasksRegisteredIs(Task* task);
    virtual void schedulerLastScheduleTimeStampIs(TaskTimeStamp const& stamp);
    virtual void schedulerLastRunTimeStampIs(TaskTimeStamp const& stamp);
    virtual void schedulerMaxSchedulerSlipInternalIs(TaskTimeDuration const& slip);
    virtual Mox::U32 tasksPerPriorityDel(TaskPriority priority);
    virtual Mox::U32 tasksPerPriorityDel(TasksPerPriority::IteratorConst& at);
    virtual void tasksPerPriorityNotify(TaskPriority priority);
    virtual void tasksPerPriorityIs(TaskPriority priority, Mox::U32 count);

    // Reports

    /// Prints the statistics report of all tasks, those that never ran and the dead included.
    void printStats(Mox::Ptr<DumpContext const> const& context) const {
        printStats(context, 0, true, true, false, false);
    }

    // The run pass

    /// One pass: runs at most one task, and requests the next pass if it did.
    void handleSchedulerRun();
    /// Chooses a task of that or a lower priority and takes it off its queue; null when there is none.
    Task* pickOneTask(TaskTimeStamp const& now, TaskPriority from);
    bool attemptLowerPriorityBump(TaskPriority priority, Mox::U32 backToBackRunCount) const;
    void requestSchedulerRunAndRecord(TaskTimeStamp const& stamp);
    /// Called by the task's destruction.
    void taskUnregister(Task* task);
    bool schedulerHasRunnableTasks() const { return schedulerHasRunnableTasks_; }

    // Statistics

    /// Runs since the last reset. Requires: a valid priority.
    Mox::U64 runTaskCount(TaskPriority priority) const;
    /// Requires: a valid priority.
    Mox::U32 runnableTaskCount(TaskPriority priority) const;
    /// The longest time from a run request to the pass that followed.
    Mox::Seconds schedulerMaxSchedulerSlip() const { return Mox::toSeconds(schedulerMaxSchedulerSlip_); }
    TaskSchedulerQueueStats queueStats() const;
    /// Appends the records of the live (the dead) tasks, in map order; returns how many were left out because
    /// they never ran.
    Mox::U32 getTaskStats(std::vector<TaskStat>* out, bool includeIdle) const;
    Mox::U32 getDeadTaskStats(std::vector<TaskStat>* out, bool includeIdle) const;
    /// The watch is told of each task that dies from now on.
    void watchDeaths(TaskDeathWatch& watch) const { deadTasks_.watch(watch); }
    /// Clears all statistics, by a task of its own that works in runs of its quantum.
    void resetStats();
    void mox_handleResetStatsTask_taskRun();
    void handleResetStatsTaskRun();
    /// The reset-stats task; null when there is none, or when its reactor has lost it.
    Mox::Ptr<Task> resetter() const;
    Mox::Ptr<Task> newResetStatsTask(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                     Mox::String8 const& name);

    // What stands in the way of an operation that would end in an assertion.

    /// Of anything that only the thread of the tree may do.
    Mox::Problem problemOfThread() const;
    /// Of requestSchedulerRun(): a driver runs it, or a chain of groups below one. A class of an application
    /// counts as a driver: as every scheduler must, it overrides requestSchedulerRun().
    Mox::Problem problemOfRequest() const;
    Mox::Problem problemOfHasRunnableTasks(bool hasRunnableTasks) const;
    Mox::Problem problemOfResetStats() const;
    /// Of making a task of that priority here.
    Mox::Problem problemOfRegistering(TaskPriority priority) const;

    // Collections

    Task* tasksRegistered(TaskKey const& key) const { return tasksRegistered_.find(key); }
    TasksRegistered const& tasksRegistered() const { return tasksRegistered_; }
    TasksRegisteredIterator tasksRegisteredIterator() const {
        return TasksRegisteredIterator(tasksRegistered_.first());
    }
    void newTasksRegistered(Task* task) { tasksRegisteredIs(task); }
    void tasksRegisteredDelAll();
    /// 0 when there is no entry.
    Mox::U32 tasksPerPriority(TaskPriority priority) const;
    TasksPerPriority const& tasksPerPriority() const { return tasksPerPriority_; }
    void newTasksPerPriority(TaskPriority priority, Mox::U32 count) { tasksPerPriorityIs(priority, count); }
    void tasksPerPriorityDelAll();
    /// Null when there is no entry.
    TaskStat const* deadTaskStats(Mox::String8 const& name) const { return deadTasks_.stats().find(name); }
    DeadTaskStats const& deadTaskStats() const { return deadTasks_.stats(); }
    void newDeadTaskStats(Mox::String8 const& name, TaskStat const& stat);
    void deadTaskStatsDelAll();
    /// 0 when there is no entry.
    Mox::U32 deadTasksPerPriority(TaskPriority priority) const;
    TasksPerPriority const& deadTasksPerPriority() const { return deadTasks_.counts(); }
    void newDeadTasksPerPriority(TaskPriority priority, Mox::U32 count) {
        deadTasksPerPriorityIs(priority, count);
    }
    void deadTasksPerPriorityDelAll();

    // Reading

    Mox::String const& schedulerName() const { return name_->name(); }
    Mox::Ptr<SchedulerName const> nameRecord() const { return name_; }
    TaskSchedulerRoot* root() const { return root_; }
    TaskTimeStamp schedulerLastScheduleTimeStamp() const { return schedulerLastScheduleTimeStamp_; }
    TaskTimeStamp schedulerLastRunTimeStamp() const { return schedulerLastRunTimeStamp_; }
    TaskKey const& resetStatsTaskBookmark() const { return resetPass_.bookmark(); }
    Mox::Ptr<MoxResetStatsTask> const& resetStatsTask() const { return resetStatsTask_.ptr(); }
    /// For those who walk a queue with a bookmark, and for tests. Requires: a valid priority.
    TaskRunQueue& runQueue(TaskPriority priority) { return runQueues_[priority]; }
    /// Requires: the calling thread may touch the tree.
    void sanityCheckCurrentRunningThread() const;
    /// What reactors of the scheduler itself belong to: the main activity of the thread.
    Mox::Ptr<Mox::Activity> const& moxFwkActivity() const { return moxFwkActivity_; }

    static constexpr Mox::U32 timerWheelTickInMsec() { return 10; }
    /// The ratio between the weights of adjacent priorities.
    static constexpr Mox::U32 priorityRunFactor() { return 8; }

    static Mox::Type const& type();

  protected:
    /// What a class tells of the requirements of its requestSchedulerRun() and of its taskRegister().
    struct Preconditions {
        Mox::Problem (*ofRequest)(TaskScheduler const& scheduler) = nullptr;
        Mox::Problem (*ofRegistering)(TaskScheduler const& scheduler, TaskPriority priority) = nullptr;
    };
    void preconditionsAre(Preconditions const& preconditions) { preconditions_ = preconditions; }

    void schedulerInit();
    void handleSchedulerHasRunnableTasks();
    /// handleSchedulerRun() for who has just read the clock.
    void runPass(TaskTimeStamp const& now);

    /// For factories: the scheduler's class overrides nothing of what happens when a task comes or goes.
    void stepsAreOwn() { stepsAreOwn_ = true; }

    /// True while the scheduler makes a task for itself, whose registration goes by no rule for others.
    bool makesOwnTask() const { return makesOwnTask_; }

    Mox::OwnReactors ownReactors_;
    bool schedulerHasRunnableTasks_ = false;

  private:
    void fileStats(Task const& task);
    void pass(TaskTimeStamp const& now);

    // Fixed at construction
    Mox::Ptr<SchedulerName const> const name_;
    TaskSchedulerRoot* const root_;
    Mox::Ptr<Mox::Activity> moxFwkActivity_;
    Preconditions preconditions_;

    // Registration and the run pass
    TasksRegistered tasksRegistered_;
    TasksPerPriority tasksPerPriority_;
    TaskRunQueues runQueues_;
    TaskTimeStamp schedulerLastScheduleTimeStamp_{};
    TaskTimeStamp schedulerLastRunTimeStamp_{};
    TaskTimeDuration schedulerMaxSchedulerSlip_{0};

    // Statistics that outlive the tasks
    DeadTasks deadTasks_;
    ResetPass resetPass_{*this};
    OwnTask<MoxResetStatsTask> resetStatsTask_{ownReactors_};
    bool makesOwnTask_ = false;
    bool stepsAreOwn_ = false;
};

/// Runs the scheduler's reset pass when its task runs.
class MOX_EXPORT TaskScheduler::MoxResetStatsTask : public OwnTaskReactor<Task, TaskScheduler> {
  public:
    /// The scheduler is told until null is given.
    void taskSchedulerIs(TaskScheduler* scheduler) { ownerIs(scheduler); }
    void onTaskRun() override;
};

/// The scheduler's name and ":", as trace lines begin.
MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskScheduler const* scheduler);

} // namespace Kel
