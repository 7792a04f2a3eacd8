#include <registry/Tables.h>

#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/FieldText.h>
#include <task/ProcessId.h>
#include <task/TaskStat.h>

#include <algorithm>

namespace Kel {

namespace {

/// Registers a type whose attributes are the fields that it describes.
template <class T> void addFieldType(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<T> table(registry);
    boost::mp11::mp_for_each<FieldsOf<T>>([&](auto field) {
        table.writable(std::string(attributeName(field)), field.pointer,
                       [field](T& value, auto const& text) { value.*field.pointer = text; });
    });
}

/// The word of a status as wide as texts may have it: the status itself refuses what is too much.
void statusValueIs(TaskStat::TaskStatus& status, Mox::U64 value) {
    status.valueIs(static_cast<Mox::U32>(std::min(value, Mox::U64{TaskStat::TaskStatus::valueMax} + 1)));
}

void addStatus(Mox::TypeRegistry& registry) {
    using Status = TaskStat::TaskStatus;
    Mox::AttributeTable<Status>(registry)
        .writable("taskTimer", &Status::taskTimer, &Status::taskTimerIs)
        .writable("taskTimerRunning", &Status::taskTimerRunning, &Status::taskTimerRunningIs)
        .writable("taskOnRunQueue", &Status::taskOnRunQueue, &Status::taskOnRunQueueIs)
        .writable("taskCurrentlyRunning", &Status::taskCurrentlyRunning, &Status::taskCurrentlyRunningIs)
        .writable("taskSuspendedForTest", &Status::taskSuspendedForTest, &Status::taskSuspendedForTestIs)
        .writable(
            "value", [](Status const& status) { return Mox::U64{status.value()}; }, statusValueIs);
}

} // namespace

void addValueTypes(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TaskPriority>(registry).writable(
        "value", &TaskPriority::numericValue,
        [](TaskPriority& priority, TaskPriority::PriorityEnum value) { priority = value; });
    Mox::AttributeTable<TaskKey>(registry).writable(
        "value", &TaskKey::value, [](TaskKey& key, Mox::U64 value) { key = TaskKey(value); });
    Mox::AttributeTable<ProcessId>(registry).writable(
        "value", &ProcessId::value, [](ProcessId& id, Mox::S64 value) { id = ProcessId(value); });
    addStatus(registry);
    addFieldType<TaskStat>(registry);
    addFieldType<TaskSchedulerPriorityStats>(registry);
    Mox::AttributeTable<TaskSchedulerQueueStats>(registry).map(
        "priority", [](TaskSchedulerQueueStats const& stats) -> auto& { return stats.priority(); });
}

} // namespace Kel
