#pragma once

#include <scheduler/TaskRunQueue.h>

#include <array>

namespace Kel {

/// The five run queues of a scheduler, and the choice of the next task among them. It knows no clock and runs
/// nothing.
///
/// Priorities go first to last. A streak of high or of normal tasks is interrupted for one lower task once
/// (weighted lower backlog) × (length of the streak) > (weighted own backlog), with the weights 64, 8 and 1
/// of high, normal and low; absolute tasks are never interrupted, scavenge tasks run when nothing else is
/// runnable.
class TaskRunQueues {
  public:
    static constexpr Mox::U32 count = TaskPriority::scavenge + 1;

    /// Requires: a valid priority.
    TaskRunQueue& operator[](TaskPriority priority) { return queues_[priority.numericValue()]; }
    TaskRunQueue const& operator[](TaskPriority priority) const { return queues_[priority.numericValue()]; }
    auto begin() { return queues_.begin(); }
    auto end() { return queues_.end(); }
    auto begin() const { return queues_.begin(); }
    auto end() const { return queues_.end(); }

    /// The next task of that or a lower priority, which has left its queue; null when there is none.
    Task* pick(TaskTimeStamp now, TaskPriority from);
    /// The same of all priorities.
    Task* pick(TaskTimeStamp now);

    /// Whether a streak of that length at that priority gives way to a lower one. Unsigned 32-bit arithmetic.
    bool attemptLowerPriorityBump(TaskPriority priority, Mox::U32 backToBackRunCount) const;

  private:
    // By priority, each a function of its own: a pass looks at few queues, and knows their weights.
    template <Mox::U32 p> Task* pickFrom(TaskTimeStamp now);
    template <Mox::U32 p> Task* pickBelow(TaskTimeStamp now);
    template <Mox::U32 p> Task* take(Task* task, TaskTimeStamp now);
    template <Mox::U32 p> Task* bump(Task* task, TaskTimeStamp now);
    template <Mox::U32 p> bool givesWay(Mox::U32 backToBackRunCount) const;
    template <Mox::U32 p> Mox::U32 weightedBacklog() const;

    std::array<TaskRunQueue, count> queues_;
};

} // namespace Kel
