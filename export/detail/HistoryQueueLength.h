#pragma once

#include <export/detail/HistoryLanes.h>

#include <deque>
#include <unordered_set>
#include <vector>

namespace Kel {

/// The length of one run queue over the history: what was there at its beginning, what came and went, and
/// what is there now.
class HistoryQueueLength {
  public:
    /// From that time on, until the next point.
    struct Point {
        TaskTimeStamp at;
        Mox::S64 length;
    };

    /// Takes an event of a task of that queue, the oldest first.
    void add(TaskSchedulerHistory::Event const& event);
    /// The length at the beginning and after each change. `runnableTasks` is the length now, if it is known.
    std::vector<Point> finish(TaskTimeStamp const& begin, TaskTimeStamp const& end,
                              std::optional<Mox::U32> runnableTasks);

  private:
    void leaves(TaskRecord const* task, TaskTimeStamp const& at, bool runs);
    void changes(TaskTimeStamp const& at, Mox::S64 by) { changes_.push_back({at, by}); }
    Mox::S64 livingTasks() const;

    Mox::S64 atBegin_ = 0;
    std::vector<Point> changes_; // each by its length
    std::deque<TaskRecord const*> waiting_;
    std::unordered_set<TaskRecord const*> known_; // whose coming or going was seen
};

} // namespace Kel
