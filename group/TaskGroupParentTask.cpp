#define MOX_SOURCE_NAME "TaskGroup"
#include <group/TaskGroupParentTask.h>

#include <group/TaskGroup.h>
#include <mox/Type.h>

namespace Kel {

MOX_DEFINE_TYPE(TaskGroupParentTask, "Kel::TaskGroupParentTask", &Task::type())

Mox::Ptr<TaskGroupParentTask>
TaskGroupParentTask::TaskGroupParentTaskIs(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                           Mox::String8 const& name, TaskGroup* taskGroup) {
    Mox::Ptr<TaskGroupParentTask> task = new TaskGroupParentTask(scheduler, priority, name, taskGroup);
    task->stepsAreOwn();
    task->hasNotificationActiveIs(true);
    return task;
}

Mox::Ptr<TaskGroupParentTask> taskGroupParentTaskFactory(Mox::Ptr<TaskScheduler> const& scheduler,
                                                         TaskPriority priority, Mox::String8 const& name,
                                                         TaskGroup* taskGroup) {
    return TaskGroupParentTask::TaskGroupParentTaskIs(scheduler, priority, name, taskGroup);
}

TaskGroupParentTask::TaskGroupParentTask(Mox::Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                                         Mox::String8 const& name, TaskGroup* taskGroup)
    : Task(scheduler, priority, name), taskGroup_(taskGroup) {
    linkToGroup();
}

TaskGroupParentTask::~TaskGroupParentTask() = default;

/// The hook takes the task out of the former group's list by itself, and out of any list when the task dies.
void TaskGroupParentTask::linkToGroup() {
    groupHook_.unlink();
    if (taskGroup_)
        taskGroup_->namedBy_.push_back(*this);
}

void TaskGroupParentTask::taskGroupIs(TaskGroup* taskGroup) {
    if (taskGroup == taskGroup_)
        return;
    taskGroup_ = taskGroup;
    linkToGroup();
    if (hasNotificationActive())
        reactors_.notify<NotifieeConst::taskGroupChanged, NotifieeConst>();
}

/// A detached group is left alone: nobody would run the task that resets it.
void TaskGroupParentTask::resetStats() {
    Task::resetStats();
    if (taskGroup_ && taskGroup_->canBeRequested())
        taskGroup_->resetStats();
}

bool TaskGroupParentTask::runsPasses() const { return taskGroup_ && taskGroup_->schedulerHasRunnableTasks(); }

Mox::Problem TaskGroupParentTask::problemOfResetStats() const {
    if (!taskGroup_ || !taskGroup_->canBeRequested())
        return {};
    bool const isLost = taskGroup_->resetStatsTask() && !taskGroup_->resetter();
    return isLost ? "null ValidPtr" : taskGroup_->problemOfResetStats();
}

void TaskGroupParentTask::NotifieeConst::handleNotification(Mox::U32 notification) {
    if (notification == taskGroupChanged)
        onTaskGroup();
    else
        Task::NotifieeConst::handleNotification(notification);
}

} // namespace Kel
