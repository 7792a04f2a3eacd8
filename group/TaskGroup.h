#pragma once

#include <group/TaskGroupParentTask.h>
#include <scheduler/TaskScheduler.h>

#include <boost/intrusive/list.hpp>

namespace Kel {

/// A scheduler that runs, as a whole, as one task of its parent scheduler. Seen from the parent, all work of
/// the group is the work of that task, at one priority and bounded by one quantum; inside the group its own
/// priorities hold. Groups nest to any depth.
///
/// When the parent task runs, the group runs passes until nothing is runnable or its quantum is used; what is
/// left waits for the parent task's next run. Each burst of work ends with one run of the parent task that
/// finds nothing to do. While the root is suspended the group ends its loop after one ignored pass. The
/// quantum is looked at before each pass, the first one included: one that is shorter than it takes to get
/// there (well below a microsecond) never lets a pass run. A run that runs nothing of what is runnable, for
/// either reason, is told by a trace of level 5.
///
/// Thread rule: that of the tree. Lifetime: counted; its tasks hold it and it holds its parent scheduler. It
/// may be released at any moment, from inside one of its own tasks too; parent tasks that name it are told.
class MOX_EXPORT TaskGroup : public TaskScheduler {
  public:
    class MoxParentTask;

    /// With `enforceTaskGroupPriority`, tasks of other priorities than the group's are refused by an
    /// assertion.
    static Mox::Ptr<TaskGroup> TaskGroupIs(Mox::String8 const& name, TaskPriority priority,
                                           bool enforceTaskGroupPriority,
                                           Mox::Ptr<TaskScheduler> const& parentScheduler);
    TaskGroup(Mox::String8 const& name, TaskPriority priority, bool enforceTaskGroupPriority,
              Mox::Ptr<TaskScheduler> const& parentScheduler);

    Mox::Type const* fwkType() const override;
    ~TaskGroup() override;
    /// Schedules the parent task. Requires: one is attached, or the group's loop is running.
    void requestSchedulerRun() override;
    void taskRegister(Task* task) override;
    /// Prints the root's history, where the group's events are.
    void printHistory(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent) const override;

    Mox::String const& taskGroupName() const { return taskGroupName_; }
    TaskPriority taskGroupPriority() const { return taskGroupPriority_; }
    bool enforceTaskGroupPriority() const { return enforceTaskGroupPriority_; }
    Mox::Ptr<TaskScheduler> const& parentScheduler() const { return parentScheduler_; }

    /// Null when detached.
    Mox::Ptr<MoxParentTask> const& parentTask() const { return parentTask_.ptr(); }
    /// Attaches a parent task, in place of one that is attached; runnable tasks of the group are looked
    /// after.
    void parentTaskIs(Mox::Ptr<TaskGroupParentTask> const& task);
    void newParentTask(Mox::Ptr<TaskGroupParentTask> const& task) { parentTaskIs(task); }
    /// Detaches the parent task and returns it; null if there was none.
    Mox::Ptr<TaskGroupParentTask> parentTaskDel();

    Mox::Seconds taskGroupQuantum() const { return taskGroupQuantum_; }
    /// Sets the parent task's quantum too. Requires: as Task::taskQuantumIs().
    void taskGroupQuantumIs(Mox::Seconds quantum);

    static Mox::Type const& type();

  private:
    friend class TaskGroupParentTask;
    using ParentTasks = boost::intrusive::list<
        TaskGroupParentTask,
        boost::intrusive::member_hook<TaskGroupParentTask, TaskGroupParentTask::GroupHook,
                                      &TaskGroupParentTask::groupHook_>,
        boost::intrusive::constant_time_size<false>>;

    void mox_handleParentTask_taskRun();
    void mox_handleTaskGroupQuantum();
    void mox_handleThis();
    void runPasses();
    bool quantumIsUsed(TaskTimeStamp const& now) const;
    bool canBeRequested() const;
    static Mox::Problem problemOfRequestOf(TaskScheduler const& scheduler);
    static Mox::Problem problemOfPriorityOf(TaskScheduler const& scheduler, TaskPriority priority);
    Mox::Problem problemOfRequestHere() const;
    Mox::Problem problemOfPriority(TaskPriority priority) const;
    Mox::Ptr<TaskGroupParentTask> attachedTask() const;

    // Fixed at construction
    Mox::String const taskGroupName_;
    TaskPriority const taskGroupPriority_;
    bool const enforceTaskGroupPriority_;
    Mox::Ptr<TaskScheduler> const parentScheduler_;

    Mox::OwnReactor<MoxParentTask> parentTask_{ownReactors_};
    Mox::Seconds taskGroupQuantum_ = Task::taskQuantumDefault;
    ParentTasks namedBy_;          // to be told when the group goes
    Mox::U32 loops_ = 0;           // of the group, under way
    mutable bool isAsked_ = false; // what stands in the way of a request
};

/// The group's reactor on its parent task.
class MOX_EXPORT TaskGroup::MoxParentTask
    : public Mox::OwnedReactor<TaskGroupParentTask::Notifiee, TaskGroup> {
  public:
    /// The group is told until null is given.
    void taskGroupIs(TaskGroup* group) { ownerIs(group); }
    void onTaskRun() override;

  private:
    void handleNotifier() override;
};

MOX_EXPORT Mox::Ptr<TaskGroup> taskGroupFactory(Mox::String8 const& name, TaskPriority priority,
                                                bool enforceTaskGroupPriority,
                                                Mox::Ptr<TaskScheduler> const& parentScheduler);

} // namespace Kel
