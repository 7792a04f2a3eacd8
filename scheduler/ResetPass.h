#pragma once

#include <scheduler/DeadTasks.h>
#include <task/Task.h>

namespace Kel {

class TaskScheduler;

/// The clearing of a scheduler's statistics by a task of its own: run counts and slip at once, then the
/// registered tasks, one by one in map order, then the names of dead tasks, which were out of sight since the
/// first run and of which a derived scheduler hears as they are let go. Each run of the task works until the
/// task's quantum is used, but at least one step.
///
/// The bookmark says where the next run goes on: the zero key starts a new pass, the key with every bit set
/// suppresses it, any other is that of the task that was reset last.
///
/// Thread and lifetime: a member of its scheduler.
class ResetPass {
  public:
    explicit ResetPass(TaskScheduler& scheduler) : scheduler_(scheduler) {}

    TaskKey const& bookmark() const { return bookmark_; }
    void bookmarkIs(TaskKey const& key);

    /// The task, while it has work left; null otherwise.
    Mox::Ptr<Task> pendingTask() const;

    /// One run of the task.
    void run(DeadTasks& deadTasks);

  private:
    void begin();
    /// False when the quantum ended first; the task is scheduled then.
    bool resetTasks();
    bool quantumIsUsed() const;
    void scheduleAgain();
    void dropNames(DeadTasks& deadTasks);

    TaskScheduler& scheduler_;
    TaskKey bookmark_ = TaskKey::none();
    bool isDropping_ = false; // all tasks are reset, names are left
    bool isMoved_ = false;    // the bookmark, since the run began
    bool isUnderWay_ = false; // since the bookmark was set
};

} // namespace Kel
