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

TypeTables::TypeTables(Add add) : add_(add) {
    *std::exchange(endOfTables, &next_) = this;
    if (registryIsMade) // a library that was loaded late
        add_(typeRegistry());
}

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

TypeEntry& TypeRegistry::add(Type const& type) {
    TypeEntry& entry = add(std::string(type.name()));
    ofEntities_.push_back({&type, &entry});
    for (OfEntities const& known : ofEntities_) // it may be the base of some
        known.entry->baseIs(nearestBase(*known.type));
    return entry;
}

TypeEntry& TypeRegistry::add(std::string name) {
    MOX_ASSERT(!find(name));
    return types_.emplace_back(std::move(name));
}

} // namespace Mox
