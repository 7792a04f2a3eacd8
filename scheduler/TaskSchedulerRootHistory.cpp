#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerRoot.h>
#include <scheduler/detail/IndentedPrint.h>
#include <task/detail/TaskTrace.h>

#include <boost/chrono/chrono_io.hpp>

#include <iomanip>
#include <sstream>
#include <vector>

// The root's history: trimming and printing it.

namespace Kel {

namespace {

constexpr Mox::Seconds maxAge = TaskSchedulerRoot::schedulerHistoryMaxAge();

/// A quantity in the short form of the clock library, as one text, so that a field width holds for all of it.
template <class T> std::string shortForm(T const& quantity) {
    std::ostringstream text;
    text << boost::chrono::duration_short << quantity;
    return text.str();
}

std::string eventLine(TaskSchedulerHistory::Event const& event, TaskTimeStamp const& now) {
    auto const age =
        boost::chrono::duration_cast<boost::chrono::microseconds>(elapsed(event.timeStamp(), now));
    std::ostringstream line;
    line << std::setw(22) << shortForm(event.timeStamp()) << ' ' << std::setw(10) << shortForm(age) << ' '
         << event.display();
    return line.str();
}

} // namespace

void TaskSchedulerRoot::clearHistory() {
    MOX_TRACE_AT(taskSchedulerTrace, 8, this << " history cleared");
    history_.clear();
}

void TaskSchedulerRoot::printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const {
    TaskTimeStamp const now = Mox::SteadyClock::now();
    std::ostringstream header;
    header << "Up to " << std::fixed << std::setprecision(0) << maxAge
           << " seconds of scheduler events, absolute timestamp and relative to now";
    KEL_PRINT_INDENTED(context, indent, "%s\n", header.str().c_str());
    // A sink may make events.
    std::vector<TaskSchedulerHistory::Event> const events(history_.begin(), history_.end());
    for (TaskSchedulerHistory::Event const& event : events)
        KEL_PRINT_INDENTED(context, indent, "%s\n", eventLine(event, now).c_str());
    KEL_PRINT_INDENTED(context, indent, "\n");
}

void TaskSchedulerRoot::trimHistoryEnabledIs(bool enabled) { trimHistoryEnabled_ = enabled; }

void TaskSchedulerRoot::trimHistoryTaskSchedule() {
    if (!trimHistoryEnabled_) {
        MOX_TRACE_AT(taskSchedulerTrace, 8, this << " trim history disabled");
        return;
    }
    Mox::Ptr<TimerTask> task = trimHistoryTask_.task();
    if (!task)
        task = newTrimHistoryTask(this, TaskPriority::scavenge, "TaskSchedulerTrimHistory");
    task->scheduleTaskLowestDelay(maxAge);
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                          TaskPriority priority, Mox::String8 const& name) {
    trimHistoryTask_.dropTask();
    return trimHistoryTask_.madeFor(this)->newTrimHistoryTask(scheduler, priority, name);
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 name) {
    return trimHistoryTask_ ? trimHistoryTask_.taskThere() : newTrimHistoryTask(scheduler, priority, name);
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::trimHistoryTaskDel() { return trimHistoryTask_.dropTask(); }

/// By the timer, which the wheel has to be there for, the trim task is scheduled.
Mox::Problem TaskSchedulerRoot::problemOfTrimming() const {
    if (!trimHistoryEnabled_)
        return {};
    Mox::Ptr<TimerTask> const task = trimHistoryTask_.task();
    if (!task && !timerWheel_)
        return "the root has no timer wheel to trim its history by";
    TaskScheduler const* const scheduler = task ? task->scheduler() : this;
    return scheduler ? scheduler->problemOfRequest()
                     : "the task that trims the history has lost its scheduler";
}

void TaskSchedulerRoot::handleTrimHistoryTaskRun() {
    Mox::U32 const deleted = history_.deleteOlderThan(Mox::toNanoseconds(maxAge));
    MOX_TRACE_AT(taskSchedulerTrace, 8,
                 this << " Deleted " << deleted << " scheduler events older than " << maxAge << " seconds");
}

void TaskSchedulerRoot::MoxTrimHistoryTask::onTaskRun() {
    if (owner())
        owner()->handleTrimHistoryTaskRun();
}

Mox::Ptr<TimerTask>
TaskSchedulerRoot::MoxTrimHistoryTask::newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                          TaskPriority priority, Mox::String8 const& name) {
    Mox::Ptr<TimerTask> const task = TimerTask::TimerTaskIs(scheduler, priority, name);
    ownTaskIs(task);
    return task;
}

Mox::Ptr<TimerTask>
TaskSchedulerRoot::MoxTrimHistoryTask::trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 const& name) {
    Mox::Ptr<TimerTask> const task = notifier();
    return task ? task : newTrimHistoryTask(scheduler, priority, name);
}

} // namespace Kel
