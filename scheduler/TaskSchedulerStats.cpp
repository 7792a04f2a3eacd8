#define MOX_SOURCE_NAME "TaskScheduler"
#include <mox/Assert.h>
#include <mox/Exception.h>
#include <scheduler/TaskScheduler.h>
#include <scheduler/TaskSchedulerReport.h>

#include <utility>

// What a scheduler tells about its queues and tasks, and how it forgets.

namespace Kel {

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

} // namespace

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
        if (includeIdle || task->taskRun() != 0)
            out->push_back(task->getStats());
        else
            ++leftOut;
    }
    return leftOut;
}

U32 TaskScheduler::getDeadTaskStats(std::vector<TaskStat>* out, bool includeIdle) const {
    U32 leftOut = 0;
    for (auto const& [name, stat] : deadTaskStats_) {
        if (includeIdle || stat.taskRun() != 0)
            out->push_back(stat);
        else
            ++leftOut;
    }
    return leftOut;
}

void TaskScheduler::printStats(Mox::Ptr<DumpContext const> const& context, U32 indent,
                               bool includeNeverRunTasks, bool includeDeadTasks,
                               bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const {
    printSchedulerStats(context, indent, *this, includeNeverRunTasks, includeDeadTasks,
                        displayMemoryAddressOfTasks);
    if (includeSchedulerHistory)
        printHistoryIsInRoot(context, indent);
}

void TaskScheduler::printHistory(Mox::Ptr<DumpContext const> const&, U32) const {
    MOX_FAIL("0 && \"Must override in derived class\"");
}

// Resetting

void TaskScheduler::resetStats() {
    Mox::Ptr<TaskScheduler> const self = this; // a group may go when it wakes its parent task
    Mox::Ptr<Task> const task = resetStatsTaskIs(this, TaskPriority::normal, schedulerName() + ";ResetStats");
    task->scheduleTask();
    resetStatsTaskBookmarkIs(TaskKey());
}

Mox::Ptr<Task> TaskScheduler::resetStatsTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                               TaskPriority priority, Mox::String8 const& name) {
    if (!resetStatsTask_)
        return newResetStatsTask(scheduler, priority, name);
    Mox::Ptr<Task> const task = resetStatsTask_->notifier();
    if (!task)
        throw Mox::RangeException("null ValidPtr");
    return task;
}

Mox::Ptr<Task> TaskScheduler::newResetStatsTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                TaskPriority priority, Mox::String8 const& name) {
    TaskScheduler::resetStatsTaskDel();
    Mox::Ptr<Task> task;
    {
        MakingOwnTask const making(makesOwnTask_);
        task = Task::TaskIs(scheduler, priority, name);
    }
    Mox::Ptr<MoxResetStatsTask> const reactor = new MoxResetStatsTask;
    reactor->moxFwkActivityIs(moxFwkActivity_);
    reactor->taskSchedulerIs(this);
    reactor->notifierIs(task);
    if (scheduler == this)
        reactor->ownTaskIs(task.ptr());
    resetStatsTask_ = reactor;
    return task;
}

Mox::Ptr<Task> TaskScheduler::resetStatsTaskDel() {
    Mox::Ptr<MoxResetStatsTask> const reactor = std::exchange(resetStatsTask_, nullptr);
    if (!reactor)
        return nullptr;
    Mox::Ptr<Task> const task = reactor->notifier();
    reactor->moxDoZombieReactors(true);
    reactor->taskSchedulerIs(nullptr);
    reactor->notifierIs(nullptr);
    return task;
}

TaskScheduler::MoxResetStatsTask::~MoxResetStatsTask() { notifierIs(nullptr); }

void TaskScheduler::MoxResetStatsTask::ownTaskIs(Task* task) {
    ownTask_ = task;
    ownTask_->ownedBySchedulerIs(); // nobody owns himself
}

void TaskScheduler::MoxResetStatsTask::handleNotifier() {
    if (ownTask_ && ownTask_ != rawNotifier())
        std::exchange(ownTask_, nullptr)->orphan();
}

void TaskScheduler::resetStatsTaskBookmarkIs(TaskKey const& key) { resetStatsTaskBookmark_ = key; }

void TaskScheduler::MoxResetStatsTask::onTaskRun() {
    if (scheduler_ && scheduler_->resetStatsTaskBookmark() != TaskKey::none())
        scheduler_->handleResetStatsTaskRun();
}

void TaskScheduler::handleResetStatsTaskRun() {
    TaskKey const bookmark = resetStatsTaskBookmark_;
    bool const begins = bookmark == TaskKey();
    if (begins)
        beginResetPass();
    Task* task = begins ? tasksRegistered_.first() : tasksRegistered_.from(bookmark);
    while (task) {
        TaskKey const key = task->taskKey();
        task->resetStats(); // may run foreign code: from here on only the key is known to be good
        Mox::Ptr<Task> const resetter = resetStatsTask_ ? resetStatsTask_->notifier() : nullptr;
        if (!resetter)
            break;
        // A run gets beyond the task that it resumed at, or a quantum of 0 would reset that one for ever.
        if ((begins || key != bookmark) && resetter->taskShouldYield()) {
            resetStatsTaskBookmarkIs(key);
            resetter->scheduleTask();
            break;
        }
        task = nextToReset(key);
    }
    deadTaskStatsDelAll();
    deadTasksPerPriorityDelAll();
}

void TaskScheduler::beginResetPass() {
    for (TaskRunQueue& queue : runQueues_)
        queue.tasksRunBaseIsTasksRun();
    schedulerMaxSchedulerSlip_ = TaskTimeDuration(0);
}

Task* TaskScheduler::nextToReset(TaskKey const& after) const {
    Task* const task = tasksRegistered_.from(after);
    return task && task->taskKey() == after ? tasksRegistered_.after(task) : task;
}

} // namespace Kel
