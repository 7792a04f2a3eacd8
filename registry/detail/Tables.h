#pragma once

#include <mox/AttributeTable.h>

namespace Kel {

// The tables of the library's types, for the registry.
//
// Not offered by name: the steps of a construction (handleInitialized, handleTimerTaskInit), which a live
// entity has behind it and cannot repeat; what takes or holds an entity; and writing the registry of tasks
// and its counts, which the tasks keep themselves.

void addValueTypes(Mox::TypeRegistry& registry);
void addSchedulerTypes(Mox::TypeRegistry& registry);
void addTaskTypes(Mox::TypeRegistry& registry);
void addGroupTypes(Mox::TypeRegistry& registry);

} // namespace Kel
