#pragma once

#include <task/Task.h>

#include <boost/intrusive/list_hook.hpp>

namespace Kel {

class TaskGroup;

/// The task by which a group is represented in its parent scheduler: run there, it runs the group.
///
/// It may outlive its group; then it is a task without work. Thread and lifetime rules are those of Task.
class MOX_EXPORT TaskGroupParentTask : public Task {
  public:
    class NotifieeConst;
    using Notifiee = Mox::NonConstNotifieeOf<TaskGroupParentTask, NotifieeConst>;

    static Mox::Ptr<TaskGroupParentTask> TaskGroupParentTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                               TaskPriority priority,
                                                               Mox::String8 const& name,
                                                               TaskGroup* taskGroup);
    TaskGroupParentTask(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                        Mox::String8 const& name, TaskGroup* taskGroup);
    ~TaskGroupParentTask() override;

    Mox::Type const* fwkType() const override;
    /// Resets the statistics of the task, and those of its group.
    void resetStats() override;
    /// What stands in the way of that: after the task's own statistics are cleared nothing may fail, so also
    /// what the group tells by an exception.
    Mox::Problem problemOfResetStats() const;
    /// Whether its run is passes of a group, behind which it is scheduled again.
    bool runsPasses() const;

    /// Null once the group is gone.
    TaskGroup* taskGroup() const { return taskGroup_; }
    void taskGroupIs(TaskGroup* taskGroup);

    static Mox::Type const& type();

  private:
    friend class TaskGroup;
    using GroupHook =
        boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

    void linkToGroup();

    TaskGroup* taskGroup_; // uncounted
    GroupHook groupHook_;  // among those that the group tells when it goes
};

/// A reactor on a parent task: what a reactor on a task has, and the change of its group.
class MOX_EXPORT TaskGroupParentTask::NotifieeConst
    : public Mox::NotifieeOf<TaskGroupParentTask, Task::NotifieeConst> {
  public:
    enum Notification : Mox::U32 { taskGroupChanged = notificationsOfTask };

    virtual void onTaskGroup() {}

    void handleNotification(Mox::U32 notification) override;
    static constexpr auto callback(Mox::U32) { return &NotifieeConst::onTaskGroup; }
};

MOX_EXPORT Mox::Ptr<TaskGroupParentTask> taskGroupParentTaskFactory(Mox::Ptr<TaskScheduler> const& scheduler,
                                                                    TaskPriority priority,
                                                                    Mox::String8 const& name,
                                                                    TaskGroup* taskGroup);

} // namespace Kel
