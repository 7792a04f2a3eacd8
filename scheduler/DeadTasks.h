#pragma once

#include <mox/HashMap.h>
#include <task/TaskStat.h>

#include <boost/intrusive/list.hpp>

#include <list>
#include <string_view>
#include <vector>

namespace Kel {

/// Is told of each task that dies, for those who go through a scheduler's statistics in slices: without it a
/// task that dies meanwhile would be missed, or counted twice.
///
/// Thread rule: that of the tree. Lifetime: it may go at any time, and so may the scheduler, which then lets
/// it go (`is_linked`).
class MOX_EXPORT TaskDeathWatch
    : public boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
  public:
    virtual ~TaskDeathWatch();
    /// The record, as it has just been merged into that of its name: with the priority which that one has.
    virtual void onTaskDeath(TaskStat const& stat) = 0;
};

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
    /// The same for the record of a task of that name which does not have the name itself; the entry is made
    /// when there is none.
    void merge(std::string_view name, TaskStat const& unnamed);
    /// Appends the records; returns how many were left out because they never ran.
    Mox::U32 collect(std::vector<TaskStat>* out, bool includeIdle) const;

    void retire();
    /// Lets one retired name go, and returns it. Requires: there is one.
    Mox::String dropRetired();
    bool hasRetired() const { return !retired_.empty(); }

    void watch(TaskDeathWatch& watch) const { watches_.push_back(watch); }
    bool isWatched() const { return !watches_.empty(); }
    /// Tells of a task whose record was merged.
    void tell(TaskStat const& stat, TaskPriority mergedPriority) const {
        if (isWatched()) [[unlikely]]
            tellWatches(stat, mergedPriority);
    }

  private:
    using Watches = boost::intrusive::list<TaskDeathWatch, boost::intrusive::constant_time_size<false>>;

    void tellWatches(TaskStat stat, TaskPriority mergedPriority) const;

    struct Retired {
        StatsByName stats;
        StatsByName::IteratorConst
            next; // to be dropped: from the map's first, since looking for it takes long
    };

    StatsByName stats_;
    CountByPriority counts_;
    std::list<Retired> retired_; // none of them empty
    mutable Watches watches_;    // to watch changes nothing
};

} // namespace Kel
