#pragma once

#include <mox/Export.h>
#include <mox/Ptr.h>
#include <mox/String.h>
#include <task/TaskPriority.h>
#include <task/TaskTime.h>

#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include <new>
#include <string_view>

namespace Kel {

#ifdef MOX_THREAD_SAFE_PTR
using RecordCounter = boost::thread_safe_counter;
#else
using RecordCounter = boost::thread_unsafe_counter;
#endif

/// A scheduler's name, shared by the scheduler and the records of its tasks.
class SchedulerName : public boost::intrusive_ref_counter<SchedulerName, RecordCounter> {
  public:
    explicit SchedulerName(Mox::String name) : name_(std::move(name)) {}
    Mox::String const& name() const { return name_; }

  private:
    Mox::String const name_;
};

/// What is left of a task when it is dead: name, priority, quantum, the guard against running it, its
/// scheduler's name. Shared by the task and its events in the history; nothing in it refers to an entity, so
/// letting it go runs nobody's destructor and the history makes no cycle.
///
/// One allocation with the name behind it; the task's name lives here and nowhere else.
class MOX_EXPORT TaskRecord {
  public:
    static constexpr Mox::U32 taskMagicNumberConstructed = 0x42BE5AFE;
    static constexpr Mox::U32 taskMagicNumberDestroyed = 0xDEADDEAD;

    /// Requires: a name of less than 512 MiB. A priority outside the enumeration stays outside.
    static Mox::Ptr<TaskRecord> TaskRecordIs(std::string_view taskName, TaskPriority priority,
                                             Mox::Ptr<SchedulerName const> schedulerName);

    std::string_view taskName() const { return {reinterpret_cast<char const*>(this + 1), nameLength_}; }
    TaskPriority taskPriority() const { return TaskPriority::PriorityEnumInstance(priority_); }
    TaskTimeDuration taskQuantum() const { return TaskTimeDuration(quantum_); }
    /// From 0 to one second; of another one the lower 32 bits are kept, for as long as it takes to refuse it.
    void taskQuantumIs(TaskTimeDuration quantum) { quantum_ = static_cast<Mox::U32>(quantum.count()); }
    Mox::String const& schedulerName() const { return schedulerName_->name(); }

    Mox::U32 taskMagicNumber() const { return magicNumber_; }
    bool isAlive() const { return magicNumber_ == taskMagicNumberConstructed; }
    void destroyed() { magicNumber_ = taskMagicNumberDestroyed; }

    TaskRecord(TaskRecord const&) = delete;
    TaskRecord& operator=(TaskRecord const&) = delete;

  private:
    friend void intrusive_ptr_add_ref(TaskRecord const* record) noexcept {
        RecordCounter::increment(record->references_);
    }
    friend void intrusive_ptr_release(TaskRecord const* record) noexcept {
        if (RecordCounter::decrement(record->references_) == 0) [[unlikely]]
            destroy(record);
    }
    static void destroy(TaskRecord const* record) noexcept;

    TaskRecord(std::string_view taskName, TaskPriority priority, Mox::Ptr<SchedulerName const> schedulerName);

    // What a run touches comes first, and lies in one line of the cache.
    mutable RecordCounter::type references_{0};
    Mox::U32 magicNumber_ = taskMagicNumberConstructed;
    Mox::U32 quantum_ = 0; // nanoseconds
    Mox::U32 const priority_ : 3;
    Mox::U32 const nameLength_ : 29;
    Mox::Ptr<SchedulerName const> const schedulerName_;
};

} // namespace Kel
