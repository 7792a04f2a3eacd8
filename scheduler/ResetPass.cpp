#include <scheduler/ResetPass.h>

#include <scheduler/TaskScheduler.h>

namespace Kel {

void ResetPass::bookmarkIs(TaskKey const& key) {
    bookmark_ = key;
    isDropping_ = false;
    isMoved_ = true;
    isUnderWay_ = key != TaskKey::none();
}

Mox::Ptr<Task> ResetPass::pendingTask() const { return isUnderWay_ ? scheduler_.resetter() : nullptr; }

/// The maps of dead tasks are empty after every run that resets tasks, the first one too; what they held is
/// dropped once the tasks are reset. A reset that is asked for meanwhile, by what hears of a name, begins
/// with the next run.
void ResetPass::run(DeadTasks& deadTasks) {
    isMoved_ = false;
    bool const isDropping = isDropping_;
    bool const tasksAreReset = isDropping || resetTasks();
    if (!isDropping) {
        scheduler_.deadTasksPerPriorityDelAll();
        deadTasks.retire();
    }
    if (!tasksAreReset)
        return;
    dropNames(deadTasks);
    isDropping_ = !isMoved_ && deadTasks.hasRetired();
    isUnderWay_ = isMoved_ || isDropping_;
    if (deadTasks.hasRetired())
        scheduleAgain();
}

/// Counts by priority are not cleared, their baseline is moved: the run queues derive what is runnable from
/// them.
void ResetPass::begin() {
    for (Mox::U32 p = 0; p < TaskRunQueues::count; ++p)
        scheduler_.runQueue(TaskPriority::PriorityEnumInstance(p)).tasksRunBaseIsTasksRun();
    scheduler_.schedulerMaxSchedulerSlipInternalIs(TaskTimeDuration(0));
}

/// Resetting a task may run foreign code, so that behind it only the task's key is known to be good. A run
/// gets beyond the task that it resumed at, or a quantum of 0 would reset that one for ever.
bool ResetPass::resetTasks() {
    TaskKey const resumed = bookmark_;
    bool const begins = resumed == TaskKey();
    if (begins)
        begin();
    auto const& tasks = scheduler_.tasksRegistered();
    for (Task* task = begins ? tasks.first() : tasks.from(resumed); task;) {
        TaskKey const key = task->taskKey();
        task->resetStats();
        if ((begins || key != resumed) && quantumIsUsed()) {
            scheduler_.resetStatsTaskBookmarkIs(key);
            scheduleAgain();
            return false;
        }
        task = tasks.behind(key);
    }
    return true;
}

/// A pass that is run by hand, without a task, has no quantum.
bool ResetPass::quantumIsUsed() const {
    auto const task = scheduler_.resetter();
    return task && task->taskShouldYield();
}

void ResetPass::scheduleAgain() {
    if (auto const task = scheduler_.resetter())
        task->scheduleTask();
}

/// A derived scheduler hears of each name once it is gone, as it does when a name is dropped by hand.
void ResetPass::dropNames(DeadTasks& deadTasks) {
    while (deadTasks.hasRetired()) {
        scheduler_.deadTaskStatsNotify(deadTasks.dropRetired());
        if (quantumIsUsed())
            return;
    }
}

} // namespace Kel
