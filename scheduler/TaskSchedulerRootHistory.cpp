#define MOX_SOURCE_NAME "TaskScheduler"
#include <mox/Exception.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <scheduler/detail/IndentedPrint.h>
#include <task/detail/TaskTrace.h>

#include <boost/chrono/chrono_io.hpp>

#include <iomanip>
#include <sstream>
#include <utility>
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
    Mox::Ptr<TimerTask> task = trimHistoryTask_ ? trimHistoryTask_->notifier() : nullptr;
    if (!task)
        task = newTrimHistoryTask(this, TaskPriority::scavenge, "TaskSchedulerTrimHistory");
    task->scheduleTaskLowestDelay(maxAge);
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                          TaskPriority priority, Mox::String8 const& name) {
    TaskSchedulerRoot::trimHistoryTaskDel();
    Mox::Ptr<MoxTrimHistoryTask> const reactor = new MoxTrimHistoryTask;
    reactor->moxFwkActivityIs(moxFwkActivity());
    reactor->taskSchedulerRootIs(this);
    Mox::Ptr<TimerTask> const task = reactor->newTrimHistoryTask(scheduler, priority, name);
    if (scheduler == this)
        reactor->ownTaskIs(task.ptr());
    trimHistoryTask_ = reactor;
    return task;
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 const& name) {
    if (!trimHistoryTask_)
        return newTrimHistoryTask(scheduler, priority, name);
    Mox::Ptr<TimerTask> const task = trimHistoryTask_->notifier();
    if (!task)
        throw Mox::RangeException("null ValidPtr");
    return task;
}

Mox::Ptr<TimerTask> TaskSchedulerRoot::trimHistoryTaskDel() {
    Mox::Ptr<MoxTrimHistoryTask> const reactor = std::exchange(trimHistoryTask_, nullptr);
    if (!reactor)
        return nullptr;
    Mox::Ptr<TimerTask> const task = reactor->notifier();
    reactor->moxDoZombieReactors(true);
    reactor->taskSchedulerRootIs(nullptr);
    reactor->notifierIs(nullptr);
    return task;
}

TaskSchedulerRoot::MoxTrimHistoryTask::~MoxTrimHistoryTask() { notifierIs(nullptr); }

void TaskSchedulerRoot::MoxTrimHistoryTask::ownTaskIs(TimerTask* task) {
    ownTask_ = task;
    ownTask_->ownedBySchedulerIs(); // nobody owns himself
}

void TaskSchedulerRoot::MoxTrimHistoryTask::handleNotifier() {
    if (ownTask_ && ownTask_ != rawNotifier())
        std::exchange(ownTask_, nullptr)->orphan();
}

void TaskSchedulerRoot::handleTrimHistoryTaskRun() {
    Mox::U32 const deleted = history_.deleteOlderThan(Mox::toNanoseconds(maxAge));
    MOX_TRACE_AT(taskSchedulerTrace, 8,
                 this << " Deleted " << deleted << " scheduler events older than " << maxAge << " seconds");
}

void TaskSchedulerRoot::MoxTrimHistoryTask::onTaskRun() {
    if (root_)
        root_->handleTrimHistoryTaskRun();
}

Mox::Ptr<TimerTask>
TaskSchedulerRoot::MoxTrimHistoryTask::newTrimHistoryTask(Mox::Ptr<TaskScheduler> const& scheduler,
                                                          TaskPriority priority, Mox::String8 const& name) {
    Mox::Ptr<TimerTask> const task = TimerTask::TimerTaskIs(scheduler, priority, name);
    notifierIs(task);
    return task;
}

Mox::Ptr<TimerTask>
TaskSchedulerRoot::MoxTrimHistoryTask::trimHistoryTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 const& name) {
    Mox::Ptr<TimerTask> const task = notifier();
    return task ? task : newTrimHistoryTask(scheduler, priority, name);
}

} // namespace Kel
