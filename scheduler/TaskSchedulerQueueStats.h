#pragma once

#include <mox/HashMap.h>
#include <scheduler/TaskSchedulerPriorityStats.h>

namespace Kel {

/// The counts of every priority of a scheduler: a plain value. Entries are in map order, not in that of the
/// priorities.
class MOX_EXPORT TaskSchedulerQueueStats {
  public:
    using Priorities = Mox::HashMap<TaskPriority, TaskSchedulerPriorityStats>;

    /// The entry of that priority; null when there is none.
    TaskSchedulerPriorityStats const* priority(TaskPriority priority) const {
        return priorities_.find(priority);
    }
    Priorities const& priority() const { return priorities_; }
    /// Files the record under its own priority, in place of one that is there.
    void priorityIs(TaskSchedulerPriorityStats const& stats) {
        priorities_.valueIs(stats.taskPriority(), stats);
    }
    void newPriority(TaskSchedulerPriorityStats const& stats) { priorityIs(stats); }
    void priorityDel(TaskPriority priority) { priorities_.erase(priority); }
    void priorityDelAll() { priorities_.clear(); }

    /// Adds entry by entry. Requires: this record has every priority that the other has, as those of
    /// TaskScheduler::queueStats() do; only a missing absolute entry is made up for.
    TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats const& rhs);
    TaskSchedulerQueueStats operator+(TaskSchedulerQueueStats const& rhs) const {
        return TaskSchedulerQueueStats(*this) += rhs;
    }
    friend MOX_EXPORT bool operator==(TaskSchedulerQueueStats const& a, TaskSchedulerQueueStats const& b);

  private:
    Priorities priorities_;
};

} // namespace Kel
