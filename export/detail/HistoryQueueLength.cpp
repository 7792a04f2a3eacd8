#define MOX_SOURCE_NAME "Export"
#include <export/detail/HistoryQueueLength.h>

#include <export/detail/HistoryLanes.h>

#include <algorithm>
#include <utility>

namespace Kel {

using EventType = TaskSchedulerEventType;

std::size_t HistoryQueueLength::add(HistoryEvent const& event) {
    if (event.type == EventType::schedule) {
        event.task->isKnownToQueue = true;
        waiting_.push_back(event.task);
        livingWaiting_ += event.task->isAlive;
        changes(event.at, 1);
    } else if (event.type == EventType::unschedule || event.type == EventType::runStart) {
        return leaves(*event.task, event.at, event.type == EventType::runStart);
    }
    return 0;
}

/// A task that was not seen to come was there from the beginning, if nothing was seen of it before; else it
/// was run directly, without its queue. The first in a queue runs first: the dead in front of one that runs
/// had left by then, and since no event tells when, they leave here.
std::size_t HistoryQueueLength::leaves(HistoryTask& task, TaskTimeStamp const& at, bool runs) {
    auto const place = std::ranges::find(waiting_, &task);
    auto const lookedAt = static_cast<std::size_t>(place - waiting_.begin());
    if (place == waiting_.end()) {
        if (!std::exchange(task.isKnownToQueue, true)) {
            ++atBegin_;
            changes(at, -1);
        }
        return lookedAt;
    }
    for (; runs && waiting_.front() != &task && !waiting_.front()->isAlive; waiting_.pop_front())
        changes(at, -1);
    waiting_.erase(place);
    livingWaiting_ -= task.isAlive;
    changes(at, -1);
    return lookedAt;
}

/// The last length is the scheduler's own count, whatever the events say: more than they explain waits since
/// before the history begins, fewer left without an event, by their death. Without a scheduler all have died
/// with it but those that somebody still holds.
void HistoryQueueLength::finish(TaskTimeStamp const& end, std::optional<Mox::U32> runnableTasks) {
    Mox::S64 const there = runnableTasks ? Mox::S64{*runnableTasks} : livingWaiting_;
    Mox::S64 const missing = there - static_cast<Mox::S64>(waiting_.size());
    if (missing > 0)
        atBegin_ += missing;
    else if (missing < 0)
        changes(end, missing);
}

} // namespace Kel
