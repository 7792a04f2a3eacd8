#pragma once

#include <group/TaskGroup.h>
#include <group/TaskGroupParentTask.h>

#include <utility>

namespace KelKv {

/// Has a group run one of its tasks in each run of its parent task, however short a quantum an operator gives
/// it: with one that is over before the group gets to its first pass, clients that wait for it would wait for
/// ever.
///
/// Lifetime: the group outlives it.
class LeastPass : public Kel::Task::Notifiee {
  public:
    explicit LeastPass(Kel::TaskGroup& group) : group_(group) { notifierIs(group.parentTask()->notifier()); }

    /// Behind the group's own reactor, which came first.
    void onTaskRun() override {
        if (group_.hasNotificationActive() && group_.schedulerHasRunnableTasks() &&
            group_.schedulerLastRunTimeStamp() == last_)
            group_.handleSchedulerRun();
        last_ = group_.schedulerLastRunTimeStamp();
    }

  private:
    Kel::TaskGroup& group_;
    Kel::TaskTimeStamp last_{};
};

} // namespace KelKv
