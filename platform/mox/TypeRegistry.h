#pragma once

#include <mox/TypeEntry.h>

#include <deque>

namespace Mox {

class TypeRegistry;

/// Makes the types of a library, or of a program that extends some of its types, known: one static object in
/// one of its sources. The types are added when the registry is first asked for, so that a program that never
/// asks pays nothing.
class MOX_EXPORT TypeTables {
  public:
    using Add = void (*)(TypeRegistry& registry);
    explicit TypeTables(Add add);
    TypeTables(TypeTables const&) = delete;
    TypeTables& operator=(TypeTables const&) = delete;

  private:
    friend class TypeRegistry;
    Add const add_;
    TypeTables const* next_ = nullptr;
};

/// The types that are known by name.
///
/// Thread rule: any thread may ask once main() runs. Types are added before that, or while one thread is all
/// there is. Entities obey their own thread rules by name as they do in C++.
class MOX_EXPORT TypeRegistry {
  public:
    TypeRegistry(TypeRegistry const&) = delete;
    TypeRegistry& operator=(TypeRegistry const&) = delete;

    /// Null when there is none of that name.
    TypeEntry const* find(std::string_view name) const;
    /// Throws a RangeException when there is none of that name.
    TypeEntry const& type(std::string_view name) const;
    /// Every type, in the order in which the tables were constructed.
    std::deque<TypeEntry> const& types() const { return types_; }

    /// The type of a subject; for an entity whose own type is not registered, the nearest one that it
    /// extends. Throws a RangeException when that is none.
    TypeEntry const& typeOf(Subject const& subject) const;

    /// A new type that extends no other. Requires: the name is new.
    TypeEntry& add(std::string name);
    /// A new type of entities. Its base may follow: which tables come first is a matter of how a program is
    /// linked. Requires: the name is new.
    TypeEntry& add(Type const& type);

  private:
    friend MOX_EXPORT TypeRegistry& typeRegistry();
    TypeRegistry();
    TypeEntry const* nearestBase(Type const& type) const;

    struct OfEntities {
        Type const* type;
        TypeEntry* entry;
    };
    std::deque<TypeEntry> types_;
    std::vector<OfEntities> ofEntities_;
};

MOX_EXPORT TypeRegistry& typeRegistry();

// Short for the functions of the subject's type (see TypeEntry).

inline String attributeText(Subject const& subject, std::string_view attribute) {
    return typeRegistry().typeOf(subject).text(subject, attribute);
}
inline void attributeTextIs(Subject const& subject, std::string_view attribute, String const& text) {
    typeRegistry().typeOf(subject).textIs(subject, attribute, text);
}
inline String callOperation(Subject const& subject, std::string_view operation,
                            std::vector<String> const& arguments = {}) {
    return typeRegistry().typeOf(subject).call(subject, operation, arguments);
}

} // namespace Mox
