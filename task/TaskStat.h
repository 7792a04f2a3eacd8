#pragma once

#include <mox/FieldTable.h>
#include <mox/Seconds.h>
#include <mox/String.h>
#include <task/TaskKey.h>
#include <task/TaskPriority.h>

#include <iosfwd>
#include <string_view>
#include <utility>

namespace Kel {

/// Everything that is measured about one task, or about all dead tasks of one name: a plain value that can be
/// copied, compared and merged.
class MOX_EXPORT TaskStat {
  public:
    /// Five flags: what a task was doing when its record was taken. The text form has the flags and the whole
    /// value; where a text has both, the value counts, wherever it stands, whatever the flags say.
    class MOX_EXPORT TaskStatus {
      public:
        static constexpr Mox::U32 valueMax = 0x1f;

        constexpr TaskStatus() = default;
        /// Throws Mox::RangeException for a value above 0x1f, as valueIs().
        explicit TaskStatus(Mox::U32 value) { valueIs(value); }
        /// As those of TaskStat.
        TaskStatus(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);
        template <Mox::NboAttrLog::AnyIn In> explicit TaskStatus(In* in) {
            Mox::U32 value = 0;
            in->read(&value);
            valueIs(value);
        }

        /// Reads the number of a value, as texts have it, and moves `position` behind it; one that is too
        /// great for any status, however long, is valueMax + 1. Throws as the constructor does.
        static Mox::U32 readValue(Mox::String::IteratorConst& position,
                                  Mox::String::IteratorConst const& end);

        constexpr Mox::U32 value() const { return value_; }
        /// Throws Mox::RangeException, and changes nothing, for a value above 0x1f.
        void valueIs(Mox::U32 value);

        /// It is a timer task.
        constexpr bool taskTimer() const { return flag(0); }
        void taskTimerIs(bool on) { flagIs(0, on); }
        /// Its timer is armed.
        constexpr bool taskTimerRunning() const { return flag(1); }
        void taskTimerRunningIs(bool on) { flagIs(1, on); }
        constexpr bool taskOnRunQueue() const { return flag(2); }
        void taskOnRunQueueIs(bool on) { flagIs(2, on); }
        constexpr bool taskCurrentlyRunning() const { return flag(3); }
        void taskCurrentlyRunningIs(bool on) { flagIs(3, on); }
        constexpr bool taskSuspendedForTest() const { return flag(4); }
        void taskSuspendedForTestIs(bool on) { flagIs(4, on); }

        friend constexpr auto operator<=>(TaskStatus const& a, TaskStatus const& b) = default;

        /// The text form.
        friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskStatus const& status);
        /// The log form: the value, as u32.
        friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
        operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, TaskStatus const& status);

      private:
        constexpr bool flag(Mox::U32 bit) const { return (value_ >> bit & 1u) != 0; }
        void flagIs(Mox::U32 bit, bool on) { value_ = on ? value_ | 1u << bit : value_ & ~(1u << bit); }

        Mox::U32 value_ = 0;
    };

    TaskStat() = default;
    /// Reads the text form and moves `position` behind it: attributes in any order, those left out keep their
    /// default, white space between tokens. Throws Mox::RangeException, with `position` where it was, when
    /// that is not what stands there.
    TaskStat(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);
    /// Reads the log form: the fields, in their order.
    explicit TaskStat(Mox::NboAttrLog::In* in);

    Mox::String const& taskName() const { return taskName_; }
    void taskNameIs(Mox::String name) { taskName_ = std::move(name); }
    TaskKey const& taskKey() const { return taskKey_; }
    void taskKeyIs(TaskKey const& key) { taskKey_ = key; }
    TaskPriority taskPriority() const { return taskPriority_; }
    void taskPriorityIs(TaskPriority priority) { taskPriority_ = priority; }

    /// Runs; wraps after 2^32.
    Mox::U32 taskRun() const { return taskRun_; }
    void taskRunIs(Mox::U32 runs) { taskRun_ = runs; }
    void taskRunInc(Mox::U32 runs) { taskRun_ += runs; }
    /// Whether there were runs: a counter of 0 beside run time has wrapped.
    bool hasRun() const { return taskRun_ != 0 || taskTotalRunTime_ != 0.0; }
    Mox::Seconds taskTotalRunTime() const { return taskTotalRunTime_; }
    void taskTotalRunTimeIs(Mox::Seconds time) { taskTotalRunTime_ = time; }
    void taskTotalRunTimeInc(Mox::Seconds const& time) { taskTotalRunTime_ += time; }
    /// Work units that the task's owner reported.
    Mox::U64 taskWorkCount() const { return taskWorkCount_; }
    void taskWorkCountIs(Mox::U64 count) { taskWorkCount_ = count; }
    void taskWorkCountInc(Mox::U64 const& count) { taskWorkCount_ += count; }

    /// Runs that took five quanta or more, and those that took two or more but less than five.
    Mox::U32 taskQuantumViolation500() const { return taskQuantumViolation500_; }
    void taskQuantumViolation500Is(Mox::U32 count) { taskQuantumViolation500_ = count; }
    void taskQuantumViolation500Inc(Mox::U32 count) { taskQuantumViolation500_ += count; }
    Mox::U32 taskQuantumViolation200() const { return taskQuantumViolation200_; }
    void taskQuantumViolation200Is(Mox::U32 count) { taskQuantumViolation200_ = count; }
    void taskQuantumViolation200Inc(Mox::U32 count) { taskQuantumViolation200_ += count; }

    /// The longest single run.
    Mox::Seconds taskRunTimeHighWaterMark() const { return taskRunTimeHighWaterMark_; }
    void taskRunTimeHighWaterMarkIs(Mox::Seconds time) { taskRunTimeHighWaterMark_ = time; }
    /// From being scheduled to leaving the run queue, the last time and at most.
    Mox::Seconds taskLastSchedulingLatency() const { return taskLastSchedulingLatency_; }
    void taskLastSchedulingLatencyIs(Mox::Seconds latency) { taskLastSchedulingLatency_ = latency; }
    Mox::Seconds taskSchedulingLatencyHighWaterMark() const { return taskSchedulingLatencyHighWaterMark_; }
    void taskSchedulingLatencyHighWaterMarkIs(Mox::Seconds latency) {
        taskSchedulingLatencyHighWaterMark_ = latency;
    }
    /// Dead tasks merged into this record.
    Mox::U32 taskDeadCount() const { return taskDeadCount_; }
    void taskDeadCountIs(Mox::U32 count) { taskDeadCount_ = count; }
    TaskStatus const& taskStatus() const { return taskStatus_; }
    void taskStatusIs(TaskStatus const& status) { taskStatus_ = status; }

    /// Merges the record of a task that died, which counts as exactly one death. An empty name takes the
    /// other's name and priority (not its key). Requires: otherwise the names are equal.
    TaskStat& operator+=(TaskStat const& rhs) { return merge(rhs, rhs.taskName_); }
    /// The same for the record of a task of that name which does not have the name itself.
    TaskStat& merge(TaskStat const& rhs, std::string_view name);
    TaskStat operator+(TaskStat const& rhs) const { return TaskStat(*this) += rhs; }

    friend bool operator==(TaskStat const& a, TaskStat const& b) { return Mox::allFieldsEqual(a, b); }

    /// The text form.
    friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskStat const& stat);
    friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
    operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, TaskStat const& stat);

    /// Two characters for reports: "*" while running, "S" suspended, "T" or "t" for a timer task with its
    /// timer armed or not, else a blank; then the priority's letter, upper case while on the run queue.
    Mox::String taskStatusString() const;

  private:
    Mox::String taskName_;
    TaskKey taskKey_;
    TaskPriority taskPriority_;
    Mox::U32 taskRun_ = 0;
    Mox::Seconds taskTotalRunTime_ = 0.0;
    Mox::U64 taskWorkCount_ = 0;
    Mox::U32 taskQuantumViolation500_ = 0;
    Mox::U32 taskQuantumViolation200_ = 0;
    Mox::Seconds taskRunTimeHighWaterMark_ = 0.0;
    Mox::Seconds taskLastSchedulingLatency_ = 0.0;
    Mox::Seconds taskSchedulingLatencyHighWaterMark_ = 0.0;
    Mox::U32 taskDeadCount_ = 0;
    TaskStatus taskStatus_;

    BOOST_DESCRIBE_CLASS(TaskStat, (), (), (),
                         (taskName_, taskKey_, taskPriority_, taskRun_, taskTotalRunTime_, taskWorkCount_,
                          taskQuantumViolation500_, taskQuantumViolation200_, taskRunTimeHighWaterMark_,
                          taskLastSchedulingLatency_, taskSchedulingLatencyHighWaterMark_, taskDeadCount_,
                          taskStatus_))
};

/// Value('Kel::TaskStat', ** {'taskName': ...}), with every field; so the status, with its flags and 'value'.
MOX_EXPORT Mox::String valueToStrep(TaskStat const& stat);
MOX_EXPORT Mox::String valueToStrep(TaskStat::TaskStatus const& status);

} // namespace Kel

namespace Mox {
using Kel::valueToStrep;
}
