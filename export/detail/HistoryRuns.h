#pragma once

#include <scheduler/TaskSchedulerHistory.h>

#include <boost/range/iterator_range.hpp>

#include <iterator>
#include <optional>
#include <vector>

namespace Kel {

/// The history's events in the order of time; they are kept the other way round.
inline auto oldestFirst(TaskSchedulerHistory const& history) {
    return boost::make_iterator_range(std::make_reverse_iterator(history.end()),
                                      std::make_reverse_iterator(history.begin()));
}

/// A run of a task, put together from its events.
struct HistoryRun {
    TaskRecord const* task;
    TaskTimeStamp start; // the oldest event's when it is not known
    TaskTimeStamp end;   // latest possible when it is not known
    bool startIsKnown = true;
    bool endIsKnown = false;
    std::optional<TaskTimeDuration> latency; // none: it was not scheduled, or that is not in the history

    bool isWhole() const { return startIsKnown && endIsKnown; }
};

/// The history's runs, in the order in which they began, the outer one first. Runs nest: a task's run may
/// contain the runs of other tasks, and of itself.
std::vector<HistoryRun> historyRuns(TaskSchedulerHistory const& history, TaskTimeStamp const& now);

} // namespace Kel
