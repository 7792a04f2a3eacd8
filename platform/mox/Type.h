#pragma once

#include <string_view>

namespace Mox {

/// What an entity is, by name: its type's name and the type it extends. One constant object a class.
class Type {
  public:
    constexpr Type(std::string_view name, Type const* base) : name_(name), base_(base) {}
    Type(Type const&) = delete;
    Type& operator=(Type const&) = delete;

    constexpr std::string_view name() const { return name_; }
    /// Null for the root of the entities.
    constexpr Type const* base() const { return base_; }

  private:
    std::string_view name_;
    Type const* base_;
};

} // namespace Mox

/// Defines, in a source, the two functions by which an entity class tells its type.
#define MOX_DEFINE_TYPE(Class, typeName, baseType)                                                           \
    ::Mox::Type const& Class::type() {                                                                       \
        static ::Mox::Type const type{typeName, baseType};                                                   \
        return type;                                                                                         \
    }                                                                                                        \
    ::Mox::Type const* Class::fwkType() const { return &type(); }
