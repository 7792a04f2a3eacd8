#pragma once

#include <scheduler/TaskSchedulerHistory.h>

#include <deque>
#include <optional>
#include <vector>

namespace Kel {

struct HistoryEvent;
struct HistoryTask;

/// The length of one run queue over the history: what was there at its beginning, what came and went, and
/// what is there now.
class HistoryQueueLength {
  public:
    struct Change {
        TaskTimeStamp at;
        Mox::S64 by;
    };

    /// Takes an event of a task of that queue, the oldest first. Returns how many waiting tasks it has looked
    /// at.
    std::size_t add(HistoryEvent const& event);
    /// Behind the last event. `runnableTasks` is the length now, if it is known.
    void finish(TaskTimeStamp const& end, std::optional<Mox::U32> runnableTasks);

    /// After `finish`.
    Mox::S64 atBegin() const { return atBegin_; }
    std::vector<Change> const& changes() const { return changes_; }

  private:
    std::size_t leaves(HistoryTask& task, TaskTimeStamp const& at, bool runs);
    void changes(TaskTimeStamp const& at, Mox::S64 by) { changes_.push_back({at, by}); }

    Mox::S64 atBegin_ = 0;
    std::vector<Change> changes_;
    std::deque<HistoryTask const*> waiting_;
    Mox::S64 livingWaiting_ = 0; // of these
};

} // namespace Kel
