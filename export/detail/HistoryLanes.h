#pragma once

#include <export/detail/HistoryQueueLength.h>
#include <kel/detail/Slices.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <array>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace Kel {

/// The tasks of one scheduler and priority, as a trace shows them.
struct HistoryLane {
    Mox::U32 number = 0;                   // from 1
    std::optional<Mox::U32> runnableTasks; // none when the scheduler is gone
    HistoryQueueLength queueLength;
};

/// A task in the history, dead or alive.
struct HistoryTask {
    HistoryLane* lane;
    Mox::String name; // as JSON
    TaskTimeDuration quantum;
    bool isAlive;

    // What those remember of it who go through the events
    std::optional<TaskTimeStamp> scheduled;
    bool isKnownToQueue = false; // its coming or going was seen
};

struct HistoryEvent {
    TaskSchedulerEventType type;
    TaskTimeStamp at;
    HistoryTask* task; // null for those of a scheduler
};

/// A root's history at one moment, with the lanes and the tasks that it speaks of.
class HistoryLanes {
  public:
    /// Whether it is not the root's, so that those come first; the scheduler's name; the priority.
    using Key = std::tuple<bool, std::string, TaskPriority>;

    /// Copies all that is needed of the tree; nothing of it is looked at later.
    explicit HistoryLanes(TaskSchedulerRoot const& root);

    TaskTimeStamp now() const { return now_; }
    /// The oldest event's; now when there is none.
    TaskTimeStamp begin() const { return begin_; }
    std::string const& rootName() const { return rootName_; }

    /// Makes events and lanes.
    Slices make();
    /// The oldest first.
    std::vector<HistoryEvent> const& events() const { return events_; }
    std::map<Key, HistoryLane>& lanes() { return lanes_; }

    Slices letGo() { return freed(tasks_); }

  private:
    /// What may have changed when the event is looked at is taken with it: the three lie side by side.
    struct Copy {
        TaskSchedulerHistory::Event event;
        TaskTimeDuration quantum;
        bool isAlive;
    };
    struct Counts {
        Mox::Ptr<SchedulerName const> scheduler;
        std::array<Mox::U32, TaskRunQueues::count> runnableTasks;
    };

    HistoryTask* taskOf(Copy const& copy);
    void finishLanes();
    void count(Counts const& counts);
    Key key(std::string const& scheduler, TaskPriority priority) const;

    std::string const rootName_;
    TaskTimeStamp const now_;
    TaskTimeStamp begin_;
    std::vector<Copy> copies_; // the newest first; the oldest go when they are looked at
    std::vector<Counts> counts_;

    std::vector<HistoryEvent> events_;
    std::map<Key, HistoryLane> lanes_;
    std::unordered_map<TaskRecord const*, HistoryTask> tasks_;
};

} // namespace Kel
