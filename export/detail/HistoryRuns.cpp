#define MOX_SOURCE_NAME "Export"
#include <export/detail/HistoryRuns.h>

#include <algorithm>
#include <iterator>
#include <unordered_map>

namespace Kel {

namespace {

using EventType = TaskSchedulerEventType;
using Event = TaskSchedulerHistory::Event;

class Runs {
  public:
    explicit Runs(TaskTimeStamp const& begin) : begin_(begin) {}

    void add(Event const& event) {
        TaskRecord const* const task = event.task().ptr();
        switch (event.eventType()) {
        case EventType::schedule: scheduled_[task] = event.timeStamp(); break;
        case EventType::unschedule: scheduled_.erase(task); break;
        case EventType::runStart: start(task, event.timeStamp()); break;
        case EventType::runEnd: end(task, event.timeStamp()); break;
        default: break;
        }
    }

    /// All runs that began before the history begin at its beginning: of these the last to end is the
    /// outermost, and a viewer nests slices of one beginning in the order in which it gets them.
    std::vector<HistoryRun> finish(TaskTimeStamp const& now) {
        endOpenRuns(0, now);
        std::ranges::reverse(begunBefore_);
        begunBefore_.insert(begunBefore_.end(), runs_.begin(), runs_.end());
        return std::move(begunBefore_);
    }

  private:
    void start(TaskRecord const* task, TaskTimeStamp const& stamp) {
        open_.push_back(runs_.size());
        runs_.push_back({task, stamp, stamp, true, false, latency(task, stamp)});
    }

    /// The innermost open run of the task: a task that runs within itself ends in that order. Runs within it
    /// that are still open ended without an event, as an orphan's do, and cannot have lasted longer.
    /// With none open the beginning was overwritten, or trimmed away.
    void end(TaskRecord const* task, TaskTimeStamp const& stamp) {
        for (std::size_t depth = open_.size(); depth > 0; --depth) {
            HistoryRun& run = runs_[open_[depth - 1]];
            if (run.task != task)
                continue;
            run.endIsKnown = true;
            endOpenRuns(depth - 1, stamp);
            return;
        }
        begunBefore_.push_back({task, begin_, stamp, false, true, std::nullopt});
    }

    void endOpenRuns(std::size_t depth, TaskTimeStamp const& stamp) {
        for (; open_.size() > depth; open_.pop_back())
            runs_[open_.back()].end = stamp;
    }

    /// Each scheduling explains one run: a run that was made directly, after it, has none.
    std::optional<TaskTimeDuration> latency(TaskRecord const* task, TaskTimeStamp const& stamp) {
        auto const scheduled = scheduled_.extract(task);
        return scheduled ? std::optional(elapsed(scheduled.mapped(), stamp)) : std::nullopt;
    }

    TaskTimeStamp const begin_;
    std::vector<HistoryRun> runs_;
    std::vector<std::size_t> open_; // places in runs_, outermost first
    std::vector<HistoryRun> begunBefore_;
    std::unordered_map<TaskRecord const*, TaskTimeStamp> scheduled_;
};

} // namespace

std::vector<HistoryRun> historyRuns(TaskSchedulerHistory const& history, TaskTimeStamp const& now) {
    if (history.empty())
        return {};
    Runs runs(std::prev(history.end())->timeStamp());
    for (Event const& event : oldestFirst(history))
        runs.add(event);
    return runs.finish(now);
}

} // namespace Kel
