#pragma once

#include <kel/TimerWheel.h>
#include <mox/ThreadId.h>
#include <scheduler/TaskScheduler.h>
#include <scheduler/TaskSchedulerHistory.h>
#include <task/ProcessId.h>
#include <task/TimerTask.h>

#include <random>

namespace Kel {

/// The scheduler at the top of a tree, and what the tree shares: the timer wheel, the history of the last ten
/// seconds, the random source of timer jitter, the thread and process that may touch the tree, and the switch
/// that suspends it.
///
/// It has no way to get itself run: use a driver, TaskSchedulerEventLoop. A root made without one needs a
/// timer wheel (`timerWheelIs`), or `trimHistoryEnabledIs(false)`, before it goes idle for the first time.
///
/// The task that trims the history is armed each time the root goes idle, so a loop that carries a root
/// always has something pending: its `run()` ends by `stop()` only.
class MOX_EXPORT TaskSchedulerRoot : public TaskScheduler {
  public:
    using TaskSchedulers = Mox::HashMap<TaskScheduler const*, bool>;
    class MoxTrimHistoryTask;

    static Mox::Ptr<TaskSchedulerRoot> TaskSchedulerRootIs(Mox::String8 const& name);
    explicit TaskSchedulerRoot(Mox::String8 const& name);

    Mox::Type const* fwkType() const override;
    ~TaskSchedulerRoot() override;
    using TaskScheduler::printStats;
    void printStats(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent, bool includeNeverRunTasks,
                    bool includeDeadTasks, bool displayMemoryAddressOfTasks,
                    bool includeSchedulerHistory) const override;
    /// Prints the history, newest event first, each with its steady-clock stamp and its age in microseconds.
    void printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const override;
    /// A change has the effects of the base's twice: two events, two run requests.
    void schedulerHasRunnableTasksIs(bool hasRunnableTasks) override;

    // Virtual operations of its own, in the order of the table.

    /// Whether going idle schedules the trim task; one that is scheduled already still runs.
    virtual void trimHistoryEnabledIs(bool enabled);
    /// Drops the trim task; returns it, orphaned; null if there was none.
    virtual Mox::Ptr<TimerTask> trimHistoryTaskDel();
    /// The trim task, made with these arguments when there is none; the scheduler given is this root. Throws
    /// Mox::RangeException ("null ValidPtr") when its reactor has lost it.
    virtual Mox::Ptr<TimerTask> trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                  TaskPriority priority, Mox::String8 name);
    /// While suspended, passes run nothing and are recorded; tasks stay queued. Resuming requests a run.
    virtual void suspendedIs(bool suspended);
    /// Removes an entry; returns its value, false when there was none.
    virtual bool taskSchedulerDel(TaskScheduler const* scheduler);
    virtual bool taskSchedulerDel(TaskSchedulers::IteratorConst& at);
    virtual void taskSchedulerNotify(TaskScheduler const* scheduler);
    virtual void taskSchedulerIs(TaskScheduler const* scheduler, bool value);
    virtual void timerWheelIs(Mox::Ptr<TimerWheel> const& wheel);
    virtual Mox::Ptr<TimerTask> newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                   TaskPriority priority, Mox::String8 const& name);

    // The tree

    void registerScheduler(TaskScheduler const* scheduler) { taskSchedulerIs(scheduler, true); }
    void unregisterScheduler(TaskScheduler const* scheduler) { taskSchedulerDel(scheduler); }
    void newTaskScheduler(TaskScheduler const* scheduler, bool value) { taskSchedulerIs(scheduler, value); }
    void taskSchedulerDelAll();
    /// False when there is no entry.
    bool taskScheduler(TaskScheduler const* scheduler) const;
    TaskSchedulers const& taskScheduler() const { return taskSchedulers_; }

    /// Requires: the calling thread is the scheduler thread, or the process is another one (a forked child).
    void sanityCheckCurrentRunningThread() const {
        if (!schedulerThread_.isCurrent()) [[unlikely]]
            sanityCheckProcess();
    }
    Mox::ThreadId const& schedulerThread() const { return schedulerThread_; }
    ProcessId const& schedulerPid() const { return schedulerPid_; }
    bool suspended() const { return suspended_; }
    Mox::Ptr<TimerWheel> const& timerWheel() const { return timerWheel_; }
    /// One draw from the random source: 0 to 100, uniform.
    Mox::U32 jitterDraw() { return jitter_(randomEngine_); }

    // The history

    void historyInsert(TaskSchedulerHistory::Event&& event) { history_.insert(std::move(event)); }
    void historyInsert(TaskSchedulerHistory::Event const& event) { history_.insert(event); }
    TaskSchedulerHistory& history() { return history_; }
    TaskSchedulerHistory const& history() const { return history_; }
    void clearHistory();
    static constexpr Mox::Seconds schedulerHistoryMaxAge() { return 10.0; }
    bool trimHistoryEnabled() const { return trimHistoryEnabled_; }
    Mox::Ptr<MoxTrimHistoryTask> const& trimHistoryTask() const { return trimHistoryTask_.ptr(); }
    /// Has the history trimmed at most ten seconds from now.
    void trimHistoryTaskSchedule();
    void handleTrimHistoryTaskRun();

    // What stands in the way of an operation that would end in an assertion.

    /// Ending a suspension asks for a run.
    Mox::Problem problemOfSuspended(bool suspended) const;
    /// Of going idle, which schedules the trim task.
    Mox::Problem problemOfTrimming() const;

    static Mox::Type const& type();

  private:
    void handleSuspended();
    void sanityCheckProcess() const;

    // Fixed at construction
    Mox::ThreadId const schedulerThread_ = Mox::ThreadId::current();
    ProcessId const schedulerPid_ = ProcessId::current();

    // The run pass
    bool suspended_ = false;
    bool trimHistoryEnabled_ = true;
    TaskSchedulerHistory history_;

    Mox::Ptr<TimerWheel> timerWheel_;
    TaskSchedulers taskSchedulers_;
    OwnTask<MoxTrimHistoryTask> trimHistoryTask_{ownReactors_};

    // Timer jitter
    std::random_device randomDevice_{"default"};
    std::mt19937 randomEngine_{randomDevice_()};
    std::uniform_int_distribution<Mox::U32> jitter_{0, 100};
};

/// Trims the history when its task runs.
class MOX_EXPORT TaskSchedulerRoot::MoxTrimHistoryTask : public OwnTaskReactor<TimerTask, TaskSchedulerRoot> {
  public:
    /// The root is told until null is given.
    void taskSchedulerRootIs(TaskSchedulerRoot* root) { ownerIs(root); }
    void onTaskRun() override;

    /// Makes the task, and attaches to it.
    Mox::Ptr<TimerTask> newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                           Mox::String8 const& name);
    /// The task, made when there is none.
    Mox::Ptr<TimerTask> trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                          Mox::String8 const& name);
};

MOX_EXPORT Mox::Ptr<TaskSchedulerRoot> taskSchedulerRootFactory(Mox::String8 const& name);

} // namespace Kel
