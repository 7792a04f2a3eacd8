#pragma once

#include <scheduler/IntrusiveLinkedListBase.h>
#include <task/Task.h>

#include <boost/intrusive/parent_from_member.hpp>

#include <algorithm>
#include <array>

namespace Kel {

/// The scheduled tasks of one priority, first in, first out, and their counters. What is runnable is derived
/// from the counters: tasks added minus tasks run.
class TaskRunQueue {
  public:
    /// Appends the task. Requires: the task is not linked.
    void append(Task& task) {
        list_.pushBack(task.taskRunQueueLink_);
        if (isLong()) [[unlikely]]
            noteAhead(task.taskRunQueueLink_);
        ++tasksAdded_;
    }
    /// The task dies.
    void forget(Task const& task) {
        std::ranges::replace(recent_, const_cast<TaskRunQueueLink*>(&task.taskRunQueueLink_), nullptr);
    }
    /// Takes out a task that is to run, or that dies. Requires: the task is linked here.
    void takeToRun(Task& task) {
        ++tasksRun_;
        MOX_ASSERT_IN("TaskScheduler", "runQueue.runnableTasks() >= 0", runnableTasks() >= 0);
        task.taskRunQueueLink_.unlink();
    }
    /// Takes out a task that is unscheduled: takes back its addition. Requires: the task is linked here.
    void takeBack(Task& task) {
        MOX_ASSERT_IN("TaskScheduler", "task->taskRunQueueLink_.isLinked()",
                      task.taskRunQueueLink_.isLinked());
        task.taskRunQueueLink_.unlink();
        --tasksAdded_;
    }

    /// The oldest task; bookmarks are skipped. Null when there is none.
    Task* first() {
        TaskRunQueueLink* const link = list_.firstTask();
        return link ? boost::intrusive::get_parent_from_member(link, &Task::taskRunQueueLink_) : nullptr;
    }

    /// Has the caches fetch, while a task that was taken runs, what later runs touch: first the head of a
    /// task some runs ahead, then, two runs ahead, all that the task refers to. With many tasks nothing of
    /// them is in a cache when their turn comes, and the list alone cannot tell in time where they are.
    /// Source: Luk and Mowry, "Compiler-Based Prefetching for Recursive Data Structures", 1996 (jump
    /// pointers).
    [[gnu::noinline]] void prefetchAfter(Task const& taken) {
        Task::prefetchHead(taken.taskRunQueueLink_.ahead());
        if (TaskRunQueueLink* const first = list_.front())
            if (TaskRunQueueLink* const second = list_.after(*first); second && !second->isBookmark())
                boost::intrusive::get_parent_from_member(second, &Task::taskRunQueueLink_)->prefetch();
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

    /// More tasks than the nearest cache holds.
    bool isLong() const { return runnableTasks() > 128; }

  private:
    static constexpr std::size_t runsAhead = 10; // with 64 bits a queue has 128 bytes then: found by a shift

    [[gnu::noinline]] void noteAhead(TaskRunQueueLink& added) {
        TaskRunQueueLink*& earlier = recent_[static_cast<std::size_t>(tasksAdded_) % runsAhead];
        if (earlier)
            earlier->aheadIs(&added);
        earlier = &added;
    }

    IntrusiveLinkedListBase list_;
    Mox::U32 backToBackRunCount_ = 0;
    Mox::U64 tasksAdded_ = 0;
    Mox::U64 tasksRun_ = 0;
    Mox::U64 tasksRunBase_ = 0;
    std::array<TaskRunQueueLink*, runsAhead> recent_{}; // the latest additions; null once dead
};

} // namespace Kel
