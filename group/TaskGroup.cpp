#define MOX_SOURCE_NAME "TaskGroup"
#include <group/TaskGroup.h>

#include <mox/Assert.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <task/detail/TaskTrace.h>

namespace Kel {

MOX_DEFINE_TYPE(TaskGroup, "Kel::TaskGroup", &TaskScheduler::type())

// Life and death

Mox::Ptr<TaskGroup> TaskGroup::TaskGroupIs(Mox::String8 const& name, TaskPriority priority,
                                           bool enforceTaskGroupPriority,
                                           Mox::Ptr<TaskScheduler> const& parentScheduler) {
    Mox::Ptr<TaskGroup> group = new TaskGroup(name, priority, enforceTaskGroupPriority, parentScheduler);
    group->stepsAreOwn();
    group->hasNotificationActiveIs(true);
    return group;
}

Mox::Ptr<TaskGroup> taskGroupFactory(Mox::String8 const& name, TaskPriority priority,
                                     bool enforceTaskGroupPriority,
                                     Mox::Ptr<TaskScheduler> const& parentScheduler) {
    return TaskGroup::TaskGroupIs(name, priority, enforceTaskGroupPriority, parentScheduler);
}

/// The group is known to the root before its parent task is made: registering that one may run foreign code,
/// which may look for the group.
TaskGroup::TaskGroup(Mox::String8 const& name, TaskPriority priority, bool enforceTaskGroupPriority,
                     Mox::Ptr<TaskScheduler> const& parentScheduler)
    : TaskScheduler("TaskGroup;" + name, parentScheduler ? parentScheduler->root() : nullptr),
      taskGroupName_(name), taskGroupPriority_(priority), enforceTaskGroupPriority_(enforceTaskGroupPriority),
      parentScheduler_(parentScheduler) {
    MOX_ASSERT_AS("__null != root_", root());
    preconditionsAre({problemOfRequestOf, problemOfPriorityOf});
    root()->registerScheduler(this);
    try {
        Mox::Ptr<TaskGroupParentTask> const task =
            taskGroupParentTaskFactory(parentScheduler_, taskGroupPriority_, schedulerName(), this);
        parentTaskIs(task);
        task->taskQuantumIs(taskGroupQuantum_);
    } catch (...) { // a parent of an application's class refuses the task
        root()->unregisterScheduler(this);
        throw;
    }
}

TaskGroup::~TaskGroup() { mox_handleThis(); }

/// The group goes: nobody refers to it any more.
void TaskGroup::mox_handleThis() {
    root()->unregisterScheduler(this);
    while (!namedBy_.empty()) {
        Mox::Ptr<TaskGroupParentTask> const task = &namedBy_.front();
        task->taskGroupIs(nullptr);
    }
}

// The parent task

void TaskGroup::parentTaskIs(Mox::Ptr<TaskGroupParentTask> const& task) {
    parentTask_.madeFor(this)->notifierIs(task);
}

/// The reactor forgets the group before it leaves the task: leaving may end the task, and with it whoever
/// owns the group.
Mox::Ptr<TaskGroupParentTask> TaskGroup::parentTaskDel() {
    Mox::Ptr<MoxParentTask> const reactor = parentTask_.drop();
    if (!reactor)
        return nullptr;
    reactor->hasNotificationActiveIs(false);
    Mox::Ptr<TaskGroupParentTask> const task = reactor->notifier();
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

/// The group's own reset task is of normal priority whatever the group's is.
void TaskGroup::taskRegister(Task* task) {
    if (task && !makesOwnTask())
        MOX_ASSERT_AS("task->taskPriority() == taskGroupPriority()",
                      problemOfPriority(task->taskPriority()).empty());
    TaskScheduler::taskRegister(task);
}

Mox::Problem TaskGroup::problemOfPriorityOf(TaskScheduler const& scheduler, TaskPriority priority) {
    return static_cast<TaskGroup const&>(scheduler).problemOfPriority(priority);
}

Mox::Problem TaskGroup::problemOfRequestOf(TaskScheduler const& scheduler) {
    return static_cast<TaskGroup const&>(scheduler).problemOfRequestHere();
}

Mox::Problem TaskGroup::problemOfPriority(TaskPriority priority) const {
    if (!enforceTaskGroupPriority_ || priority == taskGroupPriority_)
        return {};
    return "the group takes tasks of priority " + taskGroupPriority_.toStrep() + " only";
}

void TaskGroup::requestSchedulerRun() {
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    MOX_ASSERT_AS("__null != parentTask_", task || loops_ > 0);
    if (task)
        task->scheduleTask();
}

/// In its own loop the group asks for nothing: the loop goes on by itself. Otherwise its parent task has to
/// be one that can be scheduled, and not an orphan.
bool TaskGroup::canBeRequested() const {
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    return loops_ > 0 || (task && task->taskScheduler());
}

/// Parent tasks can stand in each other's groups: a group that is come back to has its parent task on a queue
/// by then.
Mox::Problem TaskGroup::problemOfRequestHere() const {
    if (isAsked_)
        return {};
    isAsked_ = true;
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    Mox::Problem problem = loops_ > 0 ? "" : "the group has no parent task";
    if (task)
        problem = task->problemOfScheduling();
    isAsked_ = false;
    return problem;
}

/// Holds itself, since its last task may die in a pass. Work that is left waits for the parent task's next
/// run, which nobody may have asked for yet.
void TaskGroup::mox_handleParentTask_taskRun() {
    if (!schedulerHasRunnableTasks())
        return;
    Mox::Ptr<TaskGroup> const self = this;
    ++loops_;
    runPasses();
    --loops_;
    if (Mox::Ptr<TaskGroupParentTask> const task = attachedTask(); task && schedulerHasRunnableTasks())
        task->scheduleTask();
}

/// One pass a turn of this loop, so that the quantum is looked at between tasks: the reading that tells
/// whether it is used is the pass's, too. While the root is suspended a pass is ignored and leaves the tasks
/// where they are: the loop would not end. A group that runs nothing asks again and again; who wonders why
/// finds it in the trace.
void TaskGroup::runPasses() {
    for (bool isFirst = true; schedulerHasRunnableTasks(); isFirst = false) {
        bool const ignored = root()->suspended();
        TaskTimeStamp const now = Mox::SteadyClock::now();
        bool const isUsed = quantumIsUsed(now);
        if (isFirst && (isUsed || ignored))
            MOX_TRACE_AT(taskSchedulerTrace, 5,
                         this << (isUsed ? " Quantum used before the first pass" : " Suspended")
                              << ", none of its runnable tasks ran");
        if (isUsed)
            return;
        runPass(now);
        if (ignored)
            return;
    }
}

bool TaskGroup::quantumIsUsed(TaskTimeStamp const& now) const {
    Mox::Ptr<TaskGroupParentTask> const task = attachedTask();
    return task && task->taskShouldYieldAt(now);
}

void TaskGroup::MoxParentTask::onTaskRun() {
    if (owner())
        owner()->mox_handleParentTask_taskRun();
}

void TaskGroup::MoxParentTask::handleNotifier() {
    if (owner() && notifier())
        owner()->mox_handleParentTask_taskRun();
}

void TaskGroup::printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const {
    parentScheduler_->printHistory(context, indent);
}

} // namespace Kel
