#pragma once

#include <scheduler/TaskSchedulerRoot.h>

#include <map>
#include <optional>
#include <string_view>
#include <tuple>
#include <unordered_map>

namespace Kel {

/// The tasks of one scheduler and priority, as a trace shows them.
struct HistoryLane {
    Mox::U32 number = 0;                   // from 1
    std::optional<Mox::U32> runnableTasks; // now; none when the scheduler is gone
};

/// A task in the history, dead or alive.
struct HistoryTask {
    HistoryLane const* lane = nullptr;
    Mox::String name; // as JSON
};

/// The lanes and tasks that a root's history speaks of.
///
/// Good until the tree changes.
class HistoryLanes {
  public:
    /// Whether it is not the root's, so that those come first; the scheduler's name; the priority.
    using Key = std::tuple<bool, std::string_view, TaskPriority>;

    explicit HistoryLanes(TaskSchedulerRoot const& root);

    std::map<Key, HistoryLane> const& lanes() const { return lanes_; }
    /// Requires: the record is in the history.
    HistoryTask const& task(TaskRecord const& record) const { return tasks_.at(&record); }

  private:
    void add(TaskRecord const& record);
    void count(TaskScheduler const& scheduler);
    Key key(std::string_view scheduler, TaskPriority priority) const;

    std::string_view const rootName_;
    std::map<Key, HistoryLane> lanes_;
    std::unordered_map<TaskRecord const*, HistoryTask> tasks_;
};

} // namespace Kel
