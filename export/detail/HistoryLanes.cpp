#define MOX_SOURCE_NAME "Export"
#include <export/detail/HistoryLanes.h>

#include <export/detail/OutputText.h>

namespace Kel {

/// Lanes come from the history alone, so that a scheduler of which nothing is to be seen takes no room; the
/// tree is asked only for the present lengths of their queues. The numbers follow the order of the keys, not
/// that of the events: a lane has its place in the next trace, too.
HistoryLanes::HistoryLanes(TaskSchedulerRoot const& root) : rootName_(root.schedulerName()) {
    for (TaskSchedulerHistory::Event const& event : root.history())
        if (event.task())
            add(*event.task());
    Mox::U32 number = 0;
    for (auto& [key, lane] : lanes_)
        lane.number = ++number;
    for (auto const& [scheduler, isRegistered] : root.taskScheduler())
        if (isRegistered)
            count(*scheduler);
}

HistoryLanes::Key HistoryLanes::key(std::string_view scheduler, TaskPriority priority) const {
    return {scheduler != rootName_, scheduler, priority};
}

/// Each name is escaped once: a task has thousands of events.
void HistoryLanes::add(TaskRecord const& record) {
    auto const [entry, isNew] = tasks_.try_emplace(&record);
    if (!isNew)
        return;
    entry->second.lane = &lanes_[key(record.schedulerName(), record.taskPriority())];
    entry->second.name = jsonString(record.taskName());
}

void HistoryLanes::count(TaskScheduler const& scheduler) {
    for (Mox::U32 p = 0; p < TaskRunQueues::count; ++p) {
        TaskPriority const priority = TaskPriority::PriorityEnumInstance(p);
        auto const lane = lanes_.find(key(scheduler.schedulerName(), priority));
        if (lane != lanes_.end())
            lane->second.runnableTasks =
                lane->second.runnableTasks.value_or(0) + scheduler.runnableTaskCount(priority);
    }
}

} // namespace Kel
