#pragma once

#include <mox/Ptr.h>
#include <mox/String.h>
#include <task/TaskRecord.h>
#include <task/TaskTime.h>

#include <boost/circular_buffer.hpp>

namespace Kel {

class Task;

enum class TaskSchedulerEventType : Mox::U8 {
    // Of a task
    schedule,
    unschedule,
    runStart,
    runEnd,
    timerStart,
    timerStop,
    suspendOn,
    suspendOff,
    scheduleSus,
    frcYieldOn,
    frcYieldOff,
    idle,
    busy,
    // Of a scheduler
    schedulerIdle,
    schedulerRunnable,
    schedulerSuspended,
    schedulerUnsuspended,
    schedulerRunIgnoredWhileSuspended
};

/// The ring of a root's latest events: fixed capacity, newest first; a full ring overwrites the oldest.
///
/// An event keeps what it shows of its task (TaskRecord), not the task. Inserting allocates nothing and runs
/// nobody's destructor.
///
/// Three insertions a run are what the history costs. A busy root's ring is full; a cursor then goes down its
/// slots, and the ring is turned to the cursor when somebody reads.
class MOX_EXPORT TaskSchedulerHistory {
  public:
    static constexpr std::size_t capacity = 10000;

    using EventType = TaskSchedulerEventType;
    class Event;
    using Ring = boost::circular_buffer<Event>;

    TaskSchedulerHistory();
    TaskSchedulerHistory(TaskSchedulerHistory const&) = delete;
    TaskSchedulerHistory& operator=(TaskSchedulerHistory const&) = delete;

    void insert(Event&& event);
    void insert(Event const& event);
    /// Deletes, from the oldest on, the events that are older than the age, and stops at the first that is
    /// not. Returns how many were deleted.
    Mox::U32 deleteOlderThan(TaskTimeDuration maxAge) noexcept;
    void clear() noexcept;

    Mox::U32 size() const;
    bool empty() const;
    /// From the newest to the oldest. An insertion ends the walk: whoever runs foreign code meanwhile walks a
    /// copy.
    Ring::const_iterator begin() const;
    Ring::const_iterator end() const;

  private:
    Event& nextSlot() noexcept;
    Event& nextSlotAtSeam() noexcept;
    void watchFull();
    Ring& turned() const;

    mutable Ring ring_;
    // Of a full ring: its first slot, and that of the newest event. Otherwise null.
    Event* lowest_ = nullptr;
    Event* newest_ = nullptr;
};

/// One event: what happened, when, and to which task.
class MOX_EXPORT TaskSchedulerHistory::Event {
  public:
    /// Requires: with a task, a type that needs one.
    Event(TaskTimeStamp const& timeStamp, EventType eventType, Mox::Ptr<TaskRecord const> task)
        : timeStamp_(timeStamp), task_(std::move(task)), eventType_(eventType) {
        if (task_ && !eventNeedTask(eventType)) [[unlikely]]
            taskNotNeeded();
    }
    Event(TaskTimeStamp const& timeStamp, EventType eventType, Mox::Ptr<Task const> const& task);
    Event(TaskTimeStamp const& timeStamp, EventType eventType, std::nullptr_t)
        : Event(timeStamp, eventType, Mox::Ptr<TaskRecord const>()) {}
    Event(TaskTimeStamp const& timeStamp, EventType eventType) : Event(timeStamp, eventType, nullptr) {}

    EventType eventType() const { return eventType_; }
    TaskTimeStamp timeStamp() const { return timeStamp_; }
    /// Null for events of a scheduler.
    Mox::Ptr<TaskRecord const> const& task() const { return task_; }

    /// Requires: a type of the enumeration.
    static bool eventNeedTask(EventType eventType) {
        if (eventType > EventType::schedulerRunIgnoredWhileSuspended) [[unlikely]]
            unexpectedType();
        return eventType <= EventType::busy;
    }

    /// The event's label, and of its task the priority's letter, a blank and the name. A label of 11
    /// characters stands directly against the letter. Requires: a type of the enumeration.
    Mox::String display() const;

  private:
    [[noreturn]] static void unexpectedType();
    [[noreturn]] static void taskNotNeeded();

    TaskTimeStamp timeStamp_;
    Mox::Ptr<TaskRecord const> task_;
    EventType eventType_;
};

// Ten thousand of them are most of what a scheduler takes.
static_assert(sizeof(void*) != 8 || sizeof(TaskSchedulerHistory::Event) == 24);

inline TaskSchedulerHistory::Event& TaskSchedulerHistory::nextSlot() noexcept {
    return newest_ == lowest_ ? nextSlotAtSeam() : *--newest_;
}
inline void TaskSchedulerHistory::insert(Event&& event) { nextSlot() = std::move(event); }
inline void TaskSchedulerHistory::insert(Event const& event) { insert(Event(event)); }
inline Mox::U32 TaskSchedulerHistory::size() const { return static_cast<Mox::U32>(ring_.size()); }
inline bool TaskSchedulerHistory::empty() const { return ring_.empty(); }
inline TaskSchedulerHistory::Ring::const_iterator TaskSchedulerHistory::begin() const {
    return turned().begin();
}
inline TaskSchedulerHistory::Ring::const_iterator TaskSchedulerHistory::end() const { return turned().end(); }

/// A task as events display it: the priority's letter, a blank, the name. Nothing for a null task.
MOX_EXPORT Mox::String historyEventDisplayTask(Mox::Ptr<Task const> const& task);

} // namespace Kel

namespace Mox {

template <> inline std::string typeNameOf<Kel::TaskSchedulerEventType>() {
    return "Kel::TaskSchedulerHistory::EventType";
}

} // namespace Mox
