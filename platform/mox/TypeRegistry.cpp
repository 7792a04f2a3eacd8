#define MOX_SOURCE_NAME "TypeRegistry"
#include <mox/TypeRegistry.h>

#include <mox/Assert.h>
#include <mox/AttributeTable.h>

#include <algorithm>
#include <utility>

namespace Mox {

namespace {

// Plain words, so that they are good whatever source's static objects come first.
constinit TypeTables const* firstTables = nullptr;
constinit TypeTables const** endOfTables = &firstTables;
constinit bool registryIsMade = false;

} // namespace

/// Tables are chained in the order of their construction, without allocating. A registry that stands already
/// takes them up at once: they came with a library that was loaded late.
TypeTables::TypeTables(Add add) : add_(add) {
    *std::exchange(endOfTables, &next_) = this;
    if (registryIsMade)
        add_(typeRegistry());
}

/// The root of the entities comes first, so that every entity has a base from the start. The tables may ask
/// for types, not for the registry itself, which is not made before they are through.
TypeRegistry::TypeRegistry() {
    AttributeTable<PtrInterface>(*this)
        .readOnly("references", &PtrInterface::references)
        .writable("hasNotificationActive", &PtrInterface::hasNotificationActive,
                  &PtrInterface::hasNotificationActiveIs)
        .operation<U32>("moxAuditErrors", &PtrInterface::moxAuditErrors)
        .operation<U32>("auditErrors", &PtrInterface::auditErrors);
    for (TypeTables const* tables = firstTables; tables; tables = tables->next_)
        tables->add_(*this);
    registryIsMade = true;
}

TypeRegistry& typeRegistry() {
    static TypeRegistry registry;
    return registry;
}

TypeEntry const* TypeRegistry::find(std::string_view name) const {
    auto const at = std::ranges::find(types_, name, &TypeEntry::name);
    return at == types_.end() ? nullptr : &*at;
}

TypeEntry const& TypeRegistry::type(std::string_view name) const {
    if (TypeEntry const* const found = find(name))
        return *found;
    throw RangeException("no type " + valueToStrep(name));
}

/// An application's own class need not be known: its entities are used as the nearest base that is.
TypeEntry const& TypeRegistry::typeOf(Subject const& subject) const {
    for (Type const* type = subject.type(); type; type = type->base())
        if (TypeEntry const* const found = find(type->name()))
            return *found;
    return type(subject.typeName());
}

TypeEntry const* TypeRegistry::nearestBase(Type const& type) const {
    TypeEntry const* base = nullptr;
    for (Type const* above = type.base(); above && !base; above = above->base())
        base = find(above->name());
    return base;
}

/// The new type may be the base of some that are there already, so all look for theirs again. Types are few
/// and added once.
TypeEntry& TypeRegistry::add(Type const& type) {
    TypeEntry& entry = add(std::string(type.name()));
    ofEntities_.push_back({&type, &entry});
    for (OfEntities const& known : ofEntities_)
        known.entry->baseIs(nearestBase(*known.type));
    return entry;
}

TypeEntry& TypeRegistry::add(std::string name) {
    MOX_ASSERT(!find(name));
    return types_.emplace_back(std::move(name));
}

} // namespace Mox
