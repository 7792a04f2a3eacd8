#define MOX_SOURCE_NAME "TaskGroup"
#include <group/TaskGroup.h>

#include <mox/Assert.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <utility>

namespace Kel {

MOX_DEFINE_TYPE(TaskGroup, "Kel::TaskGroup", &TaskScheduler::type())

// Life and death

Mox::Ptr<TaskGroup> TaskGroup::TaskGroupIs(Mox::String8 const& name, TaskPriority priority,
                                           bool enforceTaskGroupPriority,
                                           Mox::Ptr<TaskScheduler> const& parentScheduler) {
    Mox::Ptr<TaskGroup> group = new TaskGroup(name, priority, enforceTaskGroupPriority, parentScheduler);
    group->hasNotificationActiveIs(true);
    return group;
}

Mox::Ptr<TaskGroup> taskGroupFactory(Mox::String8 const& name, TaskPriority priority,
                                     bool enforceTaskGroupPriority,
                                     Mox::Ptr<TaskScheduler> const& parentScheduler) {
    return TaskGroup::TaskGroupIs(name, priority, enforceTaskGroupPriority, parentScheduler);
}

TaskGroup::TaskGroup(Mox::String8 const& name, TaskPriority priority, bool enforceTaskGroupPriority,
                     Mox::Ptr<TaskScheduler> const& parentScheduler)
    : TaskScheduler("TaskGroup;" + name, parentScheduler ? parentScheduler->root() : nullptr),
      taskGroupName_(name), taskGroupPriority_(priority), enforceTaskGroupPriority_(enforceTaskGroupPriority),
      parentScheduler_(parentScheduler) {
    MOX_ASSERT_AS("__null != root_", root());
    root()->registerScheduler(this);
    Mox::Ptr<TaskGroupParentTask> const task =
        taskGroupParentTaskFactory(parentScheduler_, taskGroupPriority_, schedulerName(), this);
    parentTaskIs(task);
    task->taskQuantumIs(taskGroupQuantum_);
}

TaskGroup::~TaskGroup() {
    dropOwnTasks();
    mox_handleThis();
    TaskGroup::moxDoZombieReactors(true);
    if (parentTask_)
        parentTask_->taskGroupIs(nullptr);
    parentTask_ = nullptr;
}

/// The group goes: nobody refers to it any more.
void TaskGroup::mox_handleThis() {
    root()->unregisterScheduler(this);
    while (!namedBy_.empty()) {
        Mox::Ptr<TaskGroupParentTask> const task = &namedBy_.front();
        task->taskGroupIs(nullptr);
    }
}

void TaskGroup::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    TaskScheduler::hasNotificationActiveIs(active);
    if (parentTask_)
        parentTask_->hasNotificationActiveIs(active);
    if (active && schedulerHasRunnableTasks() && canBeRequested())
        requestSchedulerRun(); // a run of the parent task that came meanwhile was spent
}

void TaskGroup::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    if (parentTask_)
        parentTask_->moxDoZombieReactors(zombie);
    TaskScheduler::moxDoZombieReactors(zombie);
}

// The parent task

void TaskGroup::parentTaskIs(Mox::Ptr<TaskGroupParentTask> const& task) {
    if (!parentTask_) {
        parentTask_ = new MoxParentTask;
        parentTask_->moxFwkActivityIs(moxFwkActivity());
        parentTask_->taskGroupIs(this);
    }
    parentTask_->notifierIs(task);
}

Mox::Ptr<TaskGroupParentTask> TaskGroup::parentTaskDel() {
    Mox::Ptr<MoxParentTask> const reactor = std::exchange(parentTask_, nullptr);
    if (!reactor)
        return nullptr;
    Mox::Ptr<TaskGroupParentTask> const task = reactor->notifier();
    reactor->hasNotificationActiveIs(false);
    reactor->taskGroupIs(nullptr);
    reactor->notifierIs(nullptr);
    return task;
}

Mox::Ptr<TaskGroupParentTask> TaskGroup::attachedTask() const {
    return parentTask_ ? parentTask_->notifier() : nullptr;
}

void TaskGroup::taskGroupQuantumIs(Mox::Seconds quantum) {
    if (quantum == taskGroupQuantum_)
        return;
    taskGroupQuantum_ = quantum;
    mox_handleTaskGroupQuantum();
}

void TaskGroup::mox_handleTaskGroupQuantum() {
    if (Mox::Ptr<TaskGroupParentTask> const task = attachedTask())
        task->taskQuantumIs(taskGroupQuantum_);
}

// Registration and running

void TaskGroup::taskRegister(Task* task) {
    if (task && enforceTaskGroupPriority_ && !makesOwnTask())
        MOX_ASSERT_AS("task->taskPriority() == taskGroupPriority()",
                      task->taskPriority() == taskGroupPriority());
    TaskScheduler::taskRegister(task);
}

void TaskGroup::requestSchedulerRun() {
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    MOX_ASSERT_AS("__null != parentTask_", task || loops_ > 0);
    if (task)
        task->scheduleTask();
}

bool TaskGroup::canBeRequested() const {
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    return loops_ > 0 || (task && task->taskScheduler());
}

void TaskGroup::mox_handleParentTask_taskRun() {
    if (!schedulerHasRunnableTasks())
        return;
    Mox::Ptr<TaskGroup> const self = this; // its last task may die in a pass
    ++loops_;
    runPasses();
    --loops_;
    // Work that is left waits for the parent task's next run, which nobody may have asked for yet.
    if (Mox::Ptr<TaskGroupParentTask> const task = attachedTask(); task && schedulerHasRunnableTasks())
        task->scheduleTask();
}

void TaskGroup::runPasses() {
    while (schedulerHasRunnableTasks() && !quantumIsUsed()) {
        bool const ignored = root()->suspended();
        handleSchedulerRun();
        if (ignored)
            return;
    }
}

bool TaskGroup::quantumIsUsed() const {
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    return task && task->taskShouldYield();
}

void TaskGroup::MoxParentTask::onTaskRun() {
    if (group_)
        group_->mox_handleParentTask_taskRun();
}

void TaskGroup::MoxParentTask::handleNotifier() {
    if (group_ && notifier())
        group_->mox_handleParentTask_taskRun();
}

void TaskGroup::printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const {
    parentScheduler_->printHistory(context, indent);
}

} // namespace Kel
