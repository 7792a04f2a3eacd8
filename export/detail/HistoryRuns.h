#pragma once

#include <export/detail/HistoryLanes.h>

#include <deque>
#include <optional>
#include <vector>

namespace Kel {

/// A run of a task, put together from its events.
struct HistoryRun {
    HistoryTask const* task;
    TaskTimeStamp start; // the oldest event's when it is not known
    TaskTimeStamp end;   // latest possible when it is not known
    bool startIsKnown = true;
    bool endIsKnown = false;
    std::optional<TaskTimeDuration> latency; // none: it was not scheduled, or that is not in the history

    bool isWhole() const { return startIsKnown && endIsKnown; }
};

/// The history's runs. Runs nest: a task's run may contain the runs of other tasks, and of itself.
class HistoryRuns {
  public:
    explicit HistoryRuns(TaskTimeStamp const& begin) : begin_(begin) {}

    /// The oldest first.
    void add(HistoryEvent const& event);
    /// Behind the last event.
    void finish(TaskTimeStamp const& now) { endOpenRuns(0, now); }
    /// After `finish`: the runs, in the order in which they began, the outer one first; none at the end.
    std::optional<HistoryRun> take();

  private:
    void start(HistoryTask& task, TaskTimeStamp const& stamp);
    void end(HistoryTask const& task, TaskTimeStamp const& stamp);
    void endOpenRuns(std::size_t depth, TaskTimeStamp const& stamp);

    TaskTimeStamp const begin_;
    std::deque<HistoryRun> runs_;
    std::vector<std::size_t> open_; // places in runs_, outermost first
    std::deque<HistoryRun> begunBefore_;
};

} // namespace Kel
