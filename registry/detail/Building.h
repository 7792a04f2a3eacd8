#pragma once

#include <mox/AttributeTable.h>
#include <registry/detail/Problems.h>
#include <task/TaskPriority.h>

#include <algorithm>

namespace Kel {

/// What a factory by name was given. The registry has made sure that everything needed is there; each
/// function throws a Mox::RangeException for what is of the wrong type.
class Building {
  public:
    Building(std::string typeName, Mox::Ingredients const& ingredients)
        : typeName_(std::move(typeName)), ingredients_(ingredients) {}

    template <class V> V text(std::string_view name) const {
        Mox::String const& text = named(ingredients_.texts, name).text;
        try {
            return Mox::AttributeText<V>::read(text);
        } catch (Mox::RangeException const& e) {
            refuse(name,
                   Mox::valueToStrep(text) + " is no " + Mox::AttributeText<V>::type() + ": " + e.what());
        }
    }
    /// A priority that tasks may have.
    TaskPriority priority(std::string_view name) const {
        auto const priority = text<TaskPriority>(name);
        if (!priority.isValid())
            refuse(name, Mox::valueToStrep(priority) + " is no priority of a task");
        return priority;
    }

    /// Null where null was given.
    template <class E> Mox::Ptr<E> referenceOrNull(std::string_view name) const {
        auto const& entity = named(ingredients_.references, name).entity;
        Mox::Ptr<E> const reference = dynamic_cast<E*>(entity.ptr());
        if (entity && !reference)
            refuse(name, Mox::referenceToStrep(entity.ptr()) + " is no " + std::string(E::type().name()));
        return reference;
    }
    template <class E> Mox::Ptr<E> reference(std::string_view name) const {
        Mox::Ptr<E> const reference = referenceOrNull<E>(name);
        if (!reference)
            refuse(name, "null");
        return reference;
    }

    void refuseIf(std::string_view name, Mox::Problem const& problem) const {
        if (!problem.empty())
            refuse(name, problem);
    }

  private:
    template <class Named> static Named const& named(std::vector<Named> const& all, std::string_view name) {
        return *std::ranges::find_if(all, [name](Named const& one) { return one.attribute == name; });
    }
    [[noreturn]] void refuse(std::string_view name, std::string const& problem) const {
        throw Mox::RangeException(typeName_ + "::" + std::string(name) + ": " + problem);
    }

    std::string const typeName_;
    Mox::Ingredients const& ingredients_;
};

} // namespace Kel
