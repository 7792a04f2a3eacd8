#pragma once

#include <mox/FieldTable.h>
#include <mox/Strep.h>

#include <functional>
#include <string_view>

namespace Mox {

/// The text form of a value with attributes: Value('Kel::TaskStat', ** {'taskName': 'a', 'taskRun': 1}).
///
/// Attributes are read in any order; one that is left out keeps its default, one that is repeated is an
/// error.

/// Writes that form, attribute by attribute.
class MOX_EXPORT AttributeWriter {
  public:
    explicit AttributeWriter(std::string const& typeName);

    template <class T> void write(std::string_view name, T const& value) {
        writeText(name, valueToStrep(value));
    }
    /// The whole form.
    String text() const { return text_ + "})"; }

  private:
    void writeText(std::string_view name, String const& value);

    std::string text_;
    std::string_view separator_;
};

/// Reads the attribute's value and moves the position behind it. False, with nothing read, when the type has
/// no attribute of that name.
using AttributeReader = std::function<bool(std::string_view name, String::IteratorConst& position)>;

/// Reads that form, telling each attribute, and moves the position behind it. Throws RangeException,
/// with the position where it was, for any other text.
MOX_EXPORT void readAttributes(String::IteratorConst& position, String::IteratorConst const& end,
                               std::string const& typeName, AttributeReader const& readAttribute);

/// An attribute has its field's name, without the underscore at its end.
template <class Field> constexpr std::string_view attributeName(Field field) {
    std::string_view name = field.name;
    name.remove_suffix(1);
    return name;
}

template <class T> String fieldsToStrep(T const& value) {
    AttributeWriter writer(typeNameOf<T>());
    boost::mp11::mp_for_each<FieldsOf<T>>(
        [&](auto field) { writer.write(attributeName(field), value.*field.pointer); });
    return writer.text();
}

/// On an error some of the fields may have been read already: for constructors.
template <class T>
void sequenceToFields(String::IteratorConst& position, String::IteratorConst const& end, T* value) {
    readAttributes(position, end, typeNameOf<T>(), [&](std::string_view name, auto& at) {
        bool known = false;
        boost::mp11::mp_for_each<FieldsOf<T>>([&](auto field) {
            if (attributeName(field) != name)
                return;
            sequenceToValue(at, end, &(value->*field.pointer));
            known = true;
        });
        return known;
    });
}

} // namespace Mox
