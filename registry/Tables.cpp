#include <registry/detail/Tables.h>

namespace Kel {

namespace {

void addTypes(Mox::TypeRegistry& registry) {
    addValueTypes(registry);
    addSchedulerTypes(registry);
    addTaskTypes(registry);
    addGroupTypes(registry);
}

Mox::TypeTables const tables(addTypes);

} // namespace

} // namespace Kel

/// Nothing calls it: programs that link the library as an archive name it, so that this source is among what
/// they take.
extern "C" MOX_EXPORT void kelTaskTypeTables() {}
