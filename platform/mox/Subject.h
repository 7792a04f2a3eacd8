#pragma once

#include <mox/PtrInterface.h>
#include <mox/Strep.h>
#include <mox/Type.h>

#include <concepts>

namespace Mox {

template <class T>
concept Entity = std::derived_from<T, PtrInterface>;

/// An entity or a value whose type is known by name only: what attributes are read from and written to.
///
/// Lifetime: it refers, it does not hold.
class Subject {
  public:
    Subject(PtrInterface& entity) : type_(entity.fwkType()), address_(&entity) {}
    template <class T>
        requires(!Entity<T>)
    static Subject ofValue(T& value) { return Subject(typeNameOf<T>(), &value); }

    /// Requires: that is its type, or one that its type extends.
    template <class T> T& as() const {
        if constexpr (Entity<T>)
            return static_cast<T&>(*static_cast<PtrInterface*>(address_));
        else
            return *static_cast<T*>(address_);
    }

    /// An entity's; null for a value.
    Type const* type() const { return type_; }
    std::string typeName() const { return type_ ? std::string(type_->name()) : valueTypeName_; }

  private:
    Subject(std::string typeName, void* value) : valueTypeName_(std::move(typeName)), address_(value) {}

    Type const* type_ = nullptr;
    std::string valueTypeName_;
    void* address_; // an entity's is that of its PtrInterface
};

} // namespace Mox
