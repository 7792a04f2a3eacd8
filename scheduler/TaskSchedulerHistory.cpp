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

Mox::U32 TaskSchedulerHistory::deleteOlderThan(TaskTimeDuration maxAge) noexcept {
    TaskTimeStamp const now = Mox::SteadyClock::now();
    Mox::U32 deleted = 0;
    for (; !ring_.empty() && elapsed(ring_.back().timeStamp(), now) > maxAge; ++deleted)
        ring_.pop_back();
    return deleted;
}

void TaskSchedulerHistory::clear() noexcept {
    while (!ring_.empty())
        ring_.pop_back();
}

TaskSchedulerHistory::Event::Event(TaskTimeStamp const& timeStamp, EventType eventType, Task const* task)
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
