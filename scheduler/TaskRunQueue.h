#pragma once

#include <scheduler/IntrusiveLinkedListBase.h>
#include <scheduler/TaskSchedulerHistory.h>
#include <task/Task.h>

#include <boost/intrusive/parent_from_member.hpp>

#include <algorithm>
#include <array>

namespace Kel {

/// Why a task leaves its run queue.
enum class Leaving : Mox::U8 {
    picked,   ///< the pass runs it
    removed,  ///< it runs or dies without having been picked, and counts as run
    takenBack ///< it is unscheduled: its addition is taken back
};

/// The scheduled tasks of one priority, first in, first out, their counters, and the length of the streak in
/// which they ran. What is runnable is derived from the counters: tasks added minus tasks run.
///
/// It owns a task's place in it: all that goes with entering and leaving happens here, and nowhere else. It
/// knows no clock; who has a task enter or leave says when that is.
class MOX_EXPORT TaskRunQueue {
  public:
    /// Appends the task, records that, and starts the measurement of its latency. Requires: the task is not
    /// linked.
    ///
    /// The event comes first: its stamp is that of the request.
    void enter(Task& task, TaskTimeStamp const& now, TaskSchedulerHistory& history) {
        if (!task.record_)
            __builtin_unreachable(); // a task has one all its life
        history.insert({now, TaskSchedulerEventType::schedule, task.record_});
        if (task.stepsAreOwn_) [[likely]]
            task.taskLastAddedToRunQueueTimeStamp_ = now;
        else
            task.taskLastAddedToRunQueueTimeStampIs(now);
        list_.pushBack(task.taskRunQueueLink_);
        if (runnableTasks() > cached) [[unlikely]]
            noteAhead(task.taskRunQueueLink_);
        ++tasksAdded_;
    }
    /// Takes the task out, counts that, and measures its latency; being unscheduled is recorded. Returns how
    /// many tasks are left. Requires: the task is linked here.
    Mox::S64 leave(Task& task, TaskTimeStamp const& now, Leaving why) {
        switch (why) {
        case Leaving::takenBack: noteTakenBack(task, now); break;
        case Leaving::picked: raiseStreak(); [[fallthrough]];
        case Leaving::removed: ++tasksRun_;
        }
        Mox::S64 const left = runnableTasks();
        MOX_ASSERT_IN("TaskScheduler", "runQueue.runnableTasks() >= 0", left >= 0);
        task.taskRunQueueLink_.unlink();
        task.doUpdateSchedulingLatency(now);
        return left;
    }
    /// The task dies: nothing here leads to it any more. Requires: the task is not linked.
    void forget(Task const& task) {
        if (hasRecent_) [[unlikely]]
            std::ranges::replace(recent_, const_cast<TaskRunQueueLink*>(&task.taskRunQueueLink_), nullptr);
    }

    /// The oldest task; bookmarks are skipped. Null when there is none.
    Task* first() {
        TaskRunQueueLink* const link = list_.firstTask();
        return link ? boost::intrusive::get_parent_from_member(link, &Task::taskRunQueueLink_) : nullptr;
    }

    Mox::S64 runnableTasks() const { return static_cast<Mox::S64>(tasksAdded_ - tasksRun_); }
    /// Runs since the last statistics reset.
    Mox::U64 runsSinceBase() const { return tasksRun_ - tasksRunBase_; }
    void tasksRunBaseIsTasksRun() { tasksRunBase_ = tasksRun_; }

    Mox::U64 tasksAdded() const { return tasksAdded_; }
    Mox::U64 tasksRun() const { return tasksRun_; }
    Mox::U64 tasksRunBase() const { return tasksRunBase_; }

    /// How many tasks of this priority ran in a row without one of a lower priority in between.
    Mox::U32 backToBackRunCount() const { return backToBackRunCount_; }
    void backToBackRunCountIs(Mox::U32 count) { backToBackRunCount_ = count; }

    /// For whoever walks the queue with a bookmark.
    IntrusiveLinkedListBase& list() { return list_; }
    /// Entries that are tasks: what runnableTasks() has to be.
    Mox::U64 linkedTasks() const {
        Mox::U64 count = 0;
        for (TaskRunQueueLink const* entry = list_.front(); entry; entry = list_.after(*entry))
            count += entry->isBookmark() ? 0u : 1u;
        return count;
    }

    /// Tasks that the nearest cache holds.
    static constexpr Mox::S64 cached = 128;
    /// Has the caches fetch what later runs touch, while that task, which was taken, runs; returns it.
    Task* prefetchAfter(Task* taken);

  private:
    /// It stops at its greatest value: a streak that began anew there would put off whoever waits.
    void raiseStreak() {
        if (++backToBackRunCount_ == 0) [[unlikely]]
            --backToBackRunCount_;
    }
    void noteTakenBack(Task& task, TaskTimeStamp const& now);
    void noteAhead(TaskRunQueueLink& added);

    static constexpr std::size_t runsAhead = 10;

    IntrusiveLinkedListBase list_;
    Mox::U32 backToBackRunCount_ = 0;
    bool hasRecent_ = false; // there was a time when the queue was long
    Mox::U64 tasksAdded_ = 0;
    Mox::U64 tasksRun_ = 0;
    Mox::U64 tasksRunBase_ = 0;
    std::array<TaskRunQueueLink*, runsAhead> recent_{}; // the latest additions; null once dead
};

// A queue is found by a shift.
static_assert(sizeof(void*) != 8 || sizeof(TaskRunQueue) == 128);

} // namespace Kel
