#pragma once

#include <mox/AttributeTable.h>

namespace Kel {

// The tables of the library's types, for the registry; bases come first.

void addValueTypes(Mox::TypeRegistry& registry);
void addSchedulerTypes(Mox::TypeRegistry& registry);
void addTaskTypes(Mox::TypeRegistry& registry);
void addGroupTypes(Mox::TypeRegistry& registry);

} // namespace Kel
