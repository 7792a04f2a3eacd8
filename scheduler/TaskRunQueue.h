#pragma once

#include <scheduler/IntrusiveLinkedListBase.h>
#include <task/Task.h>

namespace Kel {

/// The scheduled tasks of one priority, first in, first out, and their counters. What is runnable is derived
/// from the counters: tasks added minus tasks run.
class TaskRunQueue {
  public:
    /// Appends the task. Requires: the task is not linked.
    void append(Task& task) {
        list_.pushBack(task.taskRunQueueLink_);
        ++tasksAdded_;
    }
    /// Takes out a task that is to run, or that dies. Requires: the task is linked here.
    void takeToRun(Task& task);
    /// Takes out a task that is unscheduled: takes back its addition. Requires: the task is linked here.
    void takeBack(Task& task);

    /// The oldest task; bookmarks are skipped. Null when there is none.
    Task* first();

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
    Mox::U64 linkedTasks() const;

  private:
    IntrusiveLinkedListBase list_;
    Mox::U32 backToBackRunCount_ = 0;
    Mox::U64 tasksAdded_ = 0;
    Mox::U64 tasksRun_ = 0;
    Mox::U64 tasksRunBase_ = 0;
};

} // namespace Kel
