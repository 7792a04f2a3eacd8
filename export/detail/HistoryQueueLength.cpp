#define MOX_SOURCE_NAME "Export"
#include <export/detail/HistoryQueueLength.h>

#include <algorithm>
#include <utility>

namespace Kel {

using EventType = TaskSchedulerEventType;

void HistoryQueueLength::add(TaskSchedulerHistory::Event const& event) {
    TaskRecord const* const task = event.task().ptr();
    EventType const type = event.eventType();
    if (type == EventType::schedule) {
        known_.insert(task);
        waiting_.push_back(task);
        changes(event.timeStamp(), 1);
    } else if (type == EventType::unschedule || type == EventType::runStart) {
        leaves(task, event.timeStamp(), type == EventType::runStart);
    }
}

void HistoryQueueLength::leaves(TaskRecord const* task, TaskTimeStamp const& at, bool runs) {
    auto const place = std::ranges::find(waiting_, task);
    if (place == waiting_.end()) {
        if (!known_.insert(task).second)
            return; // it was run directly
        ++atBegin_;
        return changes(at, -1);
    }
    // The first in a queue runs first: the dead in front of it had left.
    for (; runs && waiting_.front() != task && !waiting_.front()->isAlive(); waiting_.pop_front())
        changes(at, -1);
    waiting_.erase(place);
    changes(at, -1);
}

Mox::S64 HistoryQueueLength::livingTasks() const {
    return std::ranges::count_if(waiting_, [](TaskRecord const* task) { return task->isAlive(); });
}

std::vector<HistoryQueueLength::Point> HistoryQueueLength::finish(TaskTimeStamp const& begin,
                                                                  TaskTimeStamp const& end,
                                                                  std::optional<Mox::U32> runnableTasks) {
    Mox::S64 const there = runnableTasks ? Mox::S64{*runnableTasks} : livingTasks();
    Mox::S64 const missing = there - static_cast<Mox::S64>(waiting_.size());
    if (missing > 0)
        atBegin_ += missing; // they wait since before the history begins
    else if (missing < 0)
        changes(end, missing); // they left without an event
    std::vector<Point> points{{begin, atBegin_}};
    for (Point const& change : std::exchange(changes_, {}))
        points.push_back({change.at, points.back().length + change.length});
    return points;
}

} // namespace Kel
