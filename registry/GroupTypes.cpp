#include <registry/detail/Building.h>
#include <registry/detail/Tables.h>
#include <registry/detail/ValueText.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerRoot.h>

namespace Kel {

namespace {

Mox::Ptr<Mox::PtrInterface> makeGroup(Mox::Ingredients const& ingredients) {
    Building const building("Kel::TaskGroup", ingredients);
    auto const parent = building.reference<TaskScheduler>("parentScheduler");
    TaskPriority const priority = building.priority("taskGroupPriority");
    building.refuseIf("parentScheduler", parent->problemOfRegistering(priority));
    return taskGroupFactory(building.text<Mox::String>("taskGroupName"), priority,
                            building.text<bool>("enforceTaskGroupPriority"), parent);
}

Mox::Ptr<Mox::PtrInterface> makeParentTask(Mox::Ingredients const& ingredients) {
    Building const building("Kel::TaskGroupParentTask", ingredients);
    auto const scheduler = building.reference<TaskScheduler>("taskScheduler");
    TaskPriority const priority = building.priority("taskPriority");
    building.refuseIf("taskScheduler", scheduler->problemOfRegistering(priority));
    return taskGroupParentTaskFactory(scheduler, priority, building.text<Mox::String>("taskName"),
                                      building.referenceOrNull<TaskGroup>("taskGroup").ptr());
}

} // namespace

/// The parent task can be seen by name, and not taken off: a group without one cannot ask for a run, so that
/// scheduling a task in it ends the process.
void addGroupTypes(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TaskGroup>(registry)
        .factory({"taskGroupName", "taskGroupPriority", "enforceTaskGroupPriority"}, {"parentScheduler"},
                 makeGroup)
        .readOnly("taskGroupName", &TaskGroup::taskGroupName)
        .readOnly("taskGroupPriority", &TaskGroup::taskGroupPriority)
        .readOnly("enforceTaskGroupPriority", &TaskGroup::enforceTaskGroupPriority)
        .readOnly("parentScheduler", &TaskGroup::parentScheduler)
        .reactor("parentTask", &TaskGroup::parentTask)
        .writable("taskGroupQuantum", &TaskGroup::taskGroupQuantum, &TaskGroup::taskGroupQuantumIs,
                  quantumRange);
    Mox::AttributeTable<TaskGroupParentTask>(registry)
        .factory({"taskPriority", "taskName"}, {"taskScheduler", "taskGroup"}, makeParentTask)
        .readOnly("taskGroup", &TaskGroupParentTask::taskGroup);
}

} // namespace Kel
