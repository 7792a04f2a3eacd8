#pragma once

#include <mox/HashMap.h>
#include <task/TaskStat.h>

#include <list>
#include <vector>

namespace Kel {

/// What a scheduler keeps of its tasks that died: their statistics, merged by name, and how many there were
/// of each priority.
///
/// Forgetting a name costs about as much as a short run, so names are forgotten in two steps: `retire` takes
/// them all out of sight at once, `dropRetired` lets the names go one by one.
///
/// Thread and lifetime: a member of its scheduler, who notifies of changes.
class DeadTasks {
  public:
    using StatsByName = Mox::HashMap<Mox::String, TaskStat>;
    using CountByPriority = Mox::HashMap<TaskPriority, Mox::U32>;

    StatsByName& stats() { return stats_; }
    StatsByName const& stats() const { return stats_; }
    CountByPriority& counts() { return counts_; }
    CountByPriority const& counts() const { return counts_; }

    /// Merges the record into the entry of that name, in place; returns the merged one. Where a callback has
    /// dropped the entry meanwhile, nothing is kept.
    TaskStat merge(Mox::String const& name, TaskStat const& stat);
    /// Appends the records; returns how many were left out because they never ran.
    Mox::U32 collect(std::vector<TaskStat>* out, bool includeIdle) const;

    void retire();
    /// Lets one retired name go, and returns it. Requires: there is one.
    Mox::String dropRetired();
    bool hasRetired() const { return !retired_.empty(); }

  private:
    struct Retired {
        StatsByName stats;
        StatsByName::IteratorConst
            next; // to be dropped: from the map's first, since looking for it takes long
    };

    StatsByName stats_;
    CountByPriority counts_;
    std::list<Retired> retired_; // none of them empty
};

} // namespace Kel
