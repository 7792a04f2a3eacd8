#define MOX_SOURCE_NAME "TaskSchedulerHistory"
#include <scheduler/TaskSchedulerHistory.h>

#include <mox/Assert.h>
#include <mox/SteadyClock.h>
#include <task/Task.h>

#include <array>

namespace Kel {

namespace {

constexpr std::array labels{
    "schedule   ",        "unschedule ",          "run start  ",
    "run end    ",        "timerStart ",          "timerStop  ",
    "suspendOn  ",        "suspendOff ",          "scheduleSus",
    "frcYieldOn ",        "frcYieldOff",          "idle       ",
    "busy       ",        "schedulerIdle",        "schedulerRunnable",
    "schedulerSuspended", "schedulerUnsuspended", "schedulerRunIgnoredWhileSuspended",
};

Mox::String displayRecord(Mox::Ptr<TaskRecord const> const& task) {
    if (!task)
        return {};
    Mox::String text = task->taskPriority().oneCharString();
    return text.append(" ").append(task->taskName());
}

} // namespace

TaskSchedulerHistory::TaskSchedulerHistory() : ring_(capacity) {}

/// The ring is not full, or the cursor is at its first slot.
TaskSchedulerHistory::Event& TaskSchedulerHistory::nextSlotAtSeam() noexcept {
    if (lowest_) {
        newest_ = lowest_ + capacity;
        return *--newest_;
    }
    ring_.push_front(Event({}, EventType::schedulerIdle));
    watchFull();
    return ring_.front();
}

/// The ring became full, or is so no longer.
void TaskSchedulerHistory::watchFull() {
    bool const full = ring_.full();
    Ring::array_range const wrapped = ring_.array_two();
    lowest_ = !full ? nullptr : wrapped.second > 0 ? wrapped.first : ring_.array_one().first;
    newest_ = full ? &ring_.front() : nullptr;
}

/// Readers find the newest event in front. While the ring is full the cursor has overwritten slots from the
/// front downwards without moving the front: the ring is turned by as much, once, when somebody looks.
TaskSchedulerHistory::Ring& TaskSchedulerHistory::turned() const {
    if (lowest_) {
        std::ptrdiff_t const moved = newest_ - &ring_.front();
        ring_.rotate(ring_.begin() + (moved < 0 ? moved + std::ptrdiff_t{capacity} : moved));
    }
    return ring_;
}

/// Ends at the first event that is young enough, even if older ones, inserted with an earlier stamp, lie in
/// front of it: a trim costs what it deletes.
Mox::U32 TaskSchedulerHistory::deleteOlderThan(TaskTimeDuration maxAge) noexcept {
    TaskTimeStamp const now = Mox::SteadyClock::now();
    Ring& ring = turned();
    Mox::U32 deleted = 0;
    for (; !ring.empty() && elapsed(ring.back().timeStamp(), now) > maxAge; ++deleted)
        ring.pop_back();
    watchFull();
    return deleted;
}

void TaskSchedulerHistory::clear() noexcept {
    Ring& ring = turned();
    while (!ring.empty())
        ring.pop_back();
    watchFull();
}

TaskSchedulerHistory::Event::Event(TaskTimeStamp const& timeStamp, EventType eventType,
                                   Mox::Ptr<Task const> const& task)
    : Event(timeStamp, eventType, Mox::Ptr<TaskRecord const>(task ? task->taskRecord() : nullptr)) {}

Mox::String TaskSchedulerHistory::Event::display() const {
    auto const type = static_cast<std::size_t>(eventType_);
    if (type >= labels.size())
        Mox::assertionFailed("0 && \"unexpected eventType\"", "TaskScheduler", __func__, __LINE__);
    return labels[type] + displayRecord(task_);
}

void TaskSchedulerHistory::Event::unexpectedType() {
    Mox::assertionFailed("0 && \"unexpected eventType\"", MOX_SOURCE_NAME, "eventNeedTask", __LINE__);
}

void TaskSchedulerHistory::Event::taskNotNeeded() {
    Mox::assertionFailed("eventNeedTask( _eventType )", MOX_SOURCE_NAME, "Event", __LINE__);
}

Mox::String historyEventDisplayTask(Mox::Ptr<Task const> const& task) {
    return displayRecord(task ? task->taskRecord() : nullptr);
}

} // namespace Kel
