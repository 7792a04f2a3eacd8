#include <scheduler/DeadTasks.h>

#include <utility>

namespace Kel {

TaskDeathWatch::~TaskDeathWatch() = default;

TaskStat DeadTasks::merge(Mox::String const& name, TaskStat const& stat) {
    TaskStat* const entry = stats_.find(name);
    return entry ? *entry += stat : TaskStat() + stat;
}

void DeadTasks::merge(std::string_view name, TaskStat const& unnamed) {
    TaskStat* const entry = stats_.find(name);
    (entry ? *entry : stats_.valueIs(name, {})).merge(unnamed, name);
}

Mox::U32 DeadTasks::collect(std::vector<TaskStat>* out, bool includeIdle) const {
    Mox::U32 leftOut = 0;
    for (auto const& [name, stat] : stats_)
        if (includeIdle || stat.hasRun())
            out->push_back(stat);
        else
            ++leftOut;
    return leftOut;
}

/// One map a pass, set aside whole: merging it into what an earlier pass has left would take as long as
/// dropping it.
void DeadTasks::retire() {
    if (stats_.empty())
        return;
    Retired& retired = retired_.emplace_back();
    retired.stats.swap(stats_);
    retired.next = retired.stats.begin();
}

/// The iterator moves on before its entry goes, and the map goes with its last entry.
Mox::String DeadTasks::dropRetired() {
    Retired& retired = retired_.front();
    Mox::String name = retired.next->first;
    ++retired.next;
    retired.stats.erase(name);
    if (retired.stats.empty())
        retired_.pop_front();
    return name;
}

/// A watch may go when it is told.
void DeadTasks::tellWatches(TaskStat stat, TaskPriority mergedPriority) const {
    stat.taskPriorityIs(mergedPriority);
    for (auto at = watches_.begin(); at != watches_.end();)
        (at++)->onTaskDeath(stat);
}

} // namespace Kel
