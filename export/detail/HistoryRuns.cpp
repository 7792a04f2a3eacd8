#define MOX_SOURCE_NAME "Export"
#include <export/detail/HistoryRuns.h>

#include <utility>

namespace Kel {

using EventType = TaskSchedulerEventType;

void HistoryRuns::add(HistoryEvent const& event) {
    switch (event.type) {
    case EventType::schedule: event.task->scheduled = event.at; break;
    case EventType::unschedule: event.task->scheduled.reset(); break;
    case EventType::runStart: start(*event.task, event.at); break;
    case EventType::runEnd: end(*event.task, event.at); break;
    default: break;
    }
}

/// Each scheduling explains one run: a run that was made directly, after it, has none.
void HistoryRuns::start(HistoryTask& task, TaskTimeStamp const& stamp) {
    auto const scheduled = std::exchange(task.scheduled, std::nullopt);
    open_.push_back(runs_.size());
    runs_.push_back({&task, stamp, stamp, true, false,
                     scheduled ? std::optional(elapsed(*scheduled, stamp)) : std::nullopt});
}

/// The innermost open run of the task: a task that runs within itself ends in that order. Runs within it
/// that are still open ended without an event, as an orphan's do, and cannot have lasted longer.
/// With none open the beginning was overwritten, or trimmed away.
void HistoryRuns::end(HistoryTask const& task, TaskTimeStamp const& stamp) {
    for (std::size_t depth = open_.size(); depth > 0; --depth) {
        HistoryRun& run = runs_[open_[depth - 1]];
        if (run.task != &task)
            continue;
        run.endIsKnown = true;
        endOpenRuns(depth - 1, stamp);
        return;
    }
    begunBefore_.push_back({&task, begin_, stamp, false, true, std::nullopt});
}

void HistoryRuns::endOpenRuns(std::size_t depth, TaskTimeStamp const& stamp) {
    for (; open_.size() > depth; open_.pop_back())
        runs_[open_.back()].end = stamp;
}

/// All runs that began before the history begin at its beginning: of these the last to end is the outermost,
/// and a viewer nests slices of one beginning in the order in which it gets them.
std::optional<HistoryRun> HistoryRuns::take() {
    bool const beganBefore = !begunBefore_.empty();
    if (!beganBefore && runs_.empty())
        return std::nullopt;
    HistoryRun const run = beganBefore ? begunBefore_.back() : runs_.front();
    beganBefore ? begunBefore_.pop_back() : runs_.pop_front();
    return run;
}

} // namespace Kel
