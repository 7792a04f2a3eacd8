#define MOX_SOURCE_NAME "Export"
#include <export/detail/TaskFigures.h>

#include <algorithm>
#include <utility>

namespace Kel {

void TaskFigures::add(TaskStat stat, bool lives) {
    stat.taskNameIs({});
    Mox::Seconds const latency = stat.taskLastSchedulingLatency();
    add({std::move(stat), {lives ? 0 : latency, lives ? latency : 0}, lives});
}

void TaskFigures::add(TaskFigures const& other) {
    sum += other.sum;
    for (bool const lives : {false, true})
        lastLatency[lives] = std::max(lastLatency[lives], other.lastLatency[lives]);
    anyLives |= other.anyLives;
}

/// A scheduler that has gone is told by the watch, which it has let go.
Slices TaskFiguresOfScheduler::gather(TaskScheduler const& scheduler) {
    constexpr Mox::U32 perTask = 500;
    scheduler.watchDeaths(*this);
    auto const& stats = scheduler.deadTaskStats();
    for (auto at = stats.begin(); at != stats.end(); at = stats.iteratorBehind(*name_)) {
        add(at->second, false);
        name_ = at->first;
        co_yield perTask;
        if (!is_linked())
            co_return;
    }
    deadAreTaken_ = true;
    auto const& living = scheduler.tasksRegistered();
    for (Task const* task = living.first(); task;) {
        add(task->getStats(), true);
        task_ = task->taskKey();
        bool const mayBeGone = co_yield perTask;
        if (!is_linked())
            co_return;
        task = mayBeGone ? living.behind(*task_) : living.after(task);
    }
    unlink();
}

/// A name that is not reached yet has the record merged into its own when it is.
void TaskFiguresOfScheduler::onTaskDeath(TaskStat const& stat) {
    bool const willBeSeen = !deadAreTaken_ && (!name_ || Mox::inMapOrder(*name_, stat.taskName()));
    bool const wasSeen = task_ && !Mox::inMapOrder(*task_, stat.taskKey());
    if (!willBeSeen && !wasSeen)
        add(stat, false);
}

/// By the names as they are, not by labels: many tasks share few names, and a label takes an allocation and a
/// look at every byte. What an application has put among the dead with a priority that is none has no series
/// to be in.
void TaskFiguresOfScheduler::add(TaskStat const& stat, bool lives) {
    if (!stat.taskPriority().isValid())
        return;
    ByName& byName = byName_[stat.taskPriority().numericValue()];
    byName[stat.taskName()].add(stat, lives);
}

} // namespace Kel
