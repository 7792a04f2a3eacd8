#pragma once

#include <kel/detail/Slices.h>
#include <scheduler/TaskScheduler.h>

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace Kel {

/// What a series of tasks sums up: the living and the dead, merged as a scheduler merges its dead. Of the
/// last latency that rule keeps the latest record's, which of the living is any; so here the greatest counts,
/// and that of the dead stands in when none lives.
struct TaskFigures {
    TaskStat sum;                              // without a name: "other" has many
    std::array<Mox::Seconds, 2> lastLatency{}; // of the dead, of the living
    bool anyLives = false;

    void add(TaskStat stat, bool lives);
    void add(TaskFigures const& other);
};

/// Takes what a scheduler has measured of its tasks in slices: every task and every record of a dead one
/// once, whatever is born and dies between the slices, so that a sum over a name never falls by a death.
///
/// The dead are taken first. Of a task that dies when they are, and before its own turn, it is told.
class TaskFiguresOfScheduler : private TaskDeathWatch {
  public:
    using ByName = std::map<std::string, TaskFigures, std::less<>>;

    /// The scheduler may go between the slices; what was taken by then remains.
    Slices gather(TaskScheduler const& scheduler);
    ByName& ofPriority(Mox::U32 priority) { return byName_[priority]; }

  private:
    void onTaskDeath(TaskStat const& stat) override;
    void add(TaskStat const& stat, bool lives);

    std::array<ByName, TaskRunQueues::count> byName_;

    // The last that were taken, where the walks over names and over tasks go on
    std::optional<Mox::String> name_;
    std::optional<TaskKey> task_;
    bool deadAreTaken_ = false;
};

} // namespace Kel
