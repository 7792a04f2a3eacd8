#pragma once

#include <mox/HashMap.h>
#include <scheduler/TaskSchedulerPriorityStats.h>

namespace Kel {

/// The counts of every priority of a scheduler: a plain value. Entries are in map order, not in that of the
/// priorities.
class MOX_EXPORT TaskSchedulerQueueStats {
  public:
    using Priorities = Mox::HashMap<TaskPriority, TaskSchedulerPriorityStats>;

    TaskSchedulerQueueStats() = default;
    /// Reads the text form, which is None for any record, and so gives an empty one. Throws
    /// Mox::RangeException, with `position` where it was, for any other text.
    TaskSchedulerQueueStats(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);
    /// Reads entries until a priority of number 0, each behind a priority of its own, which the writer does
    /// not write: a log of queue statistics is for other tools, and not to be read back by this.
    explicit TaskSchedulerQueueStats(Mox::NboAttrLog::In* in);

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

    /// The text form.
    friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskSchedulerQueueStats const& stats);
    /// The log form: the entries, in map order, then a priority of number 0.
    friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
    operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, TaskSchedulerQueueStats const& stats);

  private:
    Priorities priorities_;
};

/// None: what the record holds is not written.
MOX_EXPORT Mox::String valueToStrep(TaskSchedulerQueueStats const& stats);

} // namespace Kel

namespace Mox {
using Kel::valueToStrep;
}
