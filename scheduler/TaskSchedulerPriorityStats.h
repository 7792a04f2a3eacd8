#pragma once

#include <mox/FieldTable.h>
#include <mox/Integers.h>
#include <task/TaskPriority.h>

#include <iosfwd>

namespace Kel {

/// The counts of one priority of a scheduler: a plain value.
class MOX_EXPORT TaskSchedulerPriorityStats {
  public:
    TaskSchedulerPriorityStats() = default;
    explicit TaskSchedulerPriorityStats(TaskPriority priority) : taskPriority_(priority) {}
    /// Reads the text form, as TaskStat's.
    TaskSchedulerPriorityStats(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);
    /// Reads the log form: the fields, in their order.
    explicit TaskSchedulerPriorityStats(Mox::NboAttrLog::In* in);

    TaskPriority taskPriority() const { return taskPriority_; }
    void taskPriorityIs(TaskPriority priority) { taskPriority_ = priority; }
    /// Registered tasks on the run queue, and those that are not.
    Mox::U32 runnableTasks() const { return runnableTasks_; }
    void runnableTasksIs(Mox::U32 count) { runnableTasks_ = count; }
    void runnableTasksInc(Mox::U32 count) { runnableTasks_ += count; }
    Mox::U32 idleTasks() const { return idleTasks_; }
    void idleTasksIs(Mox::U32 count) { idleTasks_ = count; }
    void idleTasksInc(Mox::U32 count) { idleTasks_ += count; }
    Mox::U32 deadTasks() const { return deadTasks_; }
    void deadTasksIs(Mox::U32 count) { deadTasks_ = count; }
    void deadTasksInc(Mox::U32 count) { deadTasks_ += count; }
    Mox::U64 totalRunCount() const { return totalRunCount_; }
    void totalRunCountIs(Mox::U64 const& count) { totalRunCount_ = count; }
    void totalRunCountInc(Mox::U64 const& count) { totalRunCount_ += count; }

    /// Adds the counts. Requires: the same priority.
    TaskSchedulerPriorityStats& operator+=(TaskSchedulerPriorityStats const& rhs);
    TaskSchedulerPriorityStats operator+(TaskSchedulerPriorityStats const& rhs) const {
        return TaskSchedulerPriorityStats(*this) += rhs;
    }
    friend bool operator==(TaskSchedulerPriorityStats const& a, TaskSchedulerPriorityStats const& b) {
        return Mox::allFieldsEqual(a, b);
    }

    /// The text form.
    friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskSchedulerPriorityStats const& stats);
    friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
    operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, TaskSchedulerPriorityStats const& stats);

  private:
    TaskPriority taskPriority_;
    Mox::U32 runnableTasks_ = 0;
    Mox::U32 idleTasks_ = 0;
    Mox::U32 deadTasks_ = 0;
    Mox::U64 totalRunCount_ = 0;

    BOOST_DESCRIBE_CLASS(TaskSchedulerPriorityStats, (), (), (),
                         (taskPriority_, runnableTasks_, idleTasks_, deadTasks_, totalRunCount_))
};

/// Value('Kel::TaskSchedulerPriorityStats', ** {'taskPriority': ...}), with every field.
MOX_EXPORT Mox::String valueToStrep(TaskSchedulerPriorityStats const& stats);

} // namespace Kel

namespace Mox {
using Kel::valueToStrep;
}
