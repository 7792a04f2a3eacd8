#define MOX_SOURCE_NAME "Export"
#include <export/detail/HistoryLanes.h>

#include <export/detail/OutputText.h>

namespace Kel {

/// Ten thousand events and the counts of each scheduler, of which a tree has few: all is one moment's.
HistoryLanes::HistoryLanes(TaskSchedulerRoot const& root)
    : rootName_(root.schedulerName()), now_(Mox::SteadyClock::now()), begin_(now_) {
    copies_.reserve(root.history().size());
    for (TaskSchedulerHistory::Event const& event : root.history()) {
        TaskRecord const* const task = event.task().ptr();
        copies_.push_back({event, task ? task->taskQuantum() : TaskTimeDuration(0), task && task->isAlive()});
    }
    if (!copies_.empty())
        begin_ = copies_.back().event.timeStamp();
    for (auto const& [scheduler, isRegistered] : root.taskScheduler()) {
        if (!isRegistered)
            continue;
        Counts& counts = counts_.emplace_back(Counts{scheduler->nameRecord(), {}});
        for (Mox::U32 p = 0; p < TaskRunQueues::count; ++p)
            counts.runnableTasks[p] = scheduler->runnableTaskCount(TaskPriority::PriorityEnumInstance(p));
    }
}

/// There is room for all tasks before the first, so that no later one has all the others moved.
Slices HistoryLanes::make() {
    constexpr Mox::U32 perEvent = 100, perNewTask = 1500;
    events_.reserve(copies_.size());
    tasks_.reserve(copies_.size());
    co_yield Slices::whole;
    for (; !copies_.empty(); copies_.pop_back()) {
        std::size_t const tasks = tasks_.size();
        auto const& event = copies_.back().event;
        events_.push_back({event.eventType(), event.timeStamp(), taskOf(copies_.back())});
        co_yield tasks < tasks_.size() ? perNewTask : perEvent;
    }
    finishLanes();
}

/// Each name is escaped once: a task has thousands of events.
HistoryTask* HistoryLanes::taskOf(Copy const& copy) {
    TaskRecord const* const record = copy.event.task().ptr();
    if (!record)
        return nullptr;
    auto const there = tasks_.find(record);
    if (there != tasks_.end())
        return &there->second;
    HistoryLane& lane = lanes_[key(record->schedulerName(), record->taskPriority())];
    HistoryTask task{&lane, jsonString(record->taskName()), copy.quantum, copy.isAlive, {}, false};
    return &tasks_.emplace(record, std::move(task)).first->second;
}

/// Lanes come from the history alone, so that a scheduler of which nothing is to be seen takes no room; the
/// counts are only those of their queues. The numbers follow the order of the keys, not that of the events: a
/// lane has its place in the next trace, too.
void HistoryLanes::finishLanes() {
    Mox::U32 number = 0;
    for (auto& [key, lane] : lanes_)
        lane.number = ++number;
    for (Counts const& counts : counts_)
        count(counts);
    counts_.clear();
}

HistoryLanes::Key HistoryLanes::key(std::string const& scheduler, TaskPriority priority) const {
    return {scheduler != rootName_, scheduler, priority};
}

void HistoryLanes::count(Counts const& counts) {
    for (Mox::U32 p = 0; p < TaskRunQueues::count; ++p) {
        auto const lane = lanes_.find(key(counts.scheduler->name(), TaskPriority::PriorityEnumInstance(p)));
        if (lane != lanes_.end())
            lane->second.runnableTasks = lane->second.runnableTasks.value_or(0) + counts.runnableTasks[p];
    }
}

} // namespace Kel
