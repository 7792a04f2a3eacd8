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

/// A task that was not seen to come was there from the beginning, if nothing was seen of it before; else it
/// was run directly, without its queue. The first in a queue runs first: the dead in front of one that runs
/// had left by then, and since no event tells when, they leave here.
void HistoryQueueLength::leaves(TaskRecord const* task, TaskTimeStamp const& at, bool runs) {
    auto const place = std::ranges::find(waiting_, task);
    if (place == waiting_.end()) {
        if (!known_.insert(task).second)
            return;
        ++atBegin_;
        return changes(at, -1);
    }
    for (; runs && waiting_.front() != task && !waiting_.front()->isAlive(); waiting_.pop_front())
        changes(at, -1);
    waiting_.erase(place);
    changes(at, -1);
}

Mox::S64 HistoryQueueLength::livingTasks() const {
    return std::ranges::count_if(waiting_, [](TaskRecord const* task) { return task->isAlive(); });
}

/// The last length is the scheduler's own count, whatever the events say: more than they explain waits since
/// before the history begins, fewer left without an event, by their death. Without a scheduler all have died
/// with it but those that somebody still holds.
std::vector<HistoryQueueLength::Point> HistoryQueueLength::finish(TaskTimeStamp const& begin,
                                                                  TaskTimeStamp const& end,
                                                                  std::optional<Mox::U32> runnableTasks) {
    Mox::S64 const there = runnableTasks ? Mox::S64{*runnableTasks} : livingTasks();
    Mox::S64 const missing = there - static_cast<Mox::S64>(waiting_.size());
    if (missing > 0)
        atBegin_ += missing;
    else if (missing < 0)
        changes(end, missing);
    std::vector<Point> points{{begin, atBegin_}};
    for (Point const& change : std::exchange(changes_, {}))
        points.push_back({change.at, points.back().length + change.length});
    return points;
}

} // namespace Kel
