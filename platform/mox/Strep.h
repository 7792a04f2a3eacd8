#pragma once

#include <mox/Exception.h>
#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/String.h>

#include <boost/core/type_name.hpp>

#include <concepts>
#include <cstddef>
#include <limits>
#include <type_traits>

namespace Mox {

/// Text forms ("streps") of values, to be shown and to be read back. Each is a Python expression as well:
///
///     bool       True or False
///     integers   decimal
///     double     the shortest decimal text that reads back to the same bits; an infinity is float('inf') or
///                -float('inf'). Minus zero is -0.0, since Python takes -0 for the integer 0. A NaN is
///                float('nan') or -float('nan'): its sign survives, its payload does not
///     String     in single quotes. Backslash and single quote are escaped by a backslash, line ends and tabs
///                are \n, \r and \t, every other byte outside printable ASCII is \x and two digits. So the
///                text is ASCII whatever the bytes are, and in Python each byte is the code point of its
///                number: `eval(text).encode('latin-1')` gives the bytes
///
/// A type of another library has functions of these names beside it and names them in a using-declaration for
/// this namespace, so that `Mox::valueToStrep` serves every type; a class may have a constructor T(position,
/// end) in place of a reader. In a template, call them unqualified.
///
/// Readers skip white space before each token, take text up to the end given and no further, and either move
/// the position behind what they read or throw a RangeException and change nothing. They are somewhat wider
/// than the writers: strings in double quotes, and any byte in them as it is.
template <std::integral T> String valueToStrep(T value);
template <std::same_as<double> T> String valueToStrep(T value);
MOX_EXPORT String valueToStrep(std::string_view value);

template <std::integral T>
void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end, T* value);
MOX_EXPORT void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end,
                                double* value);
MOX_EXPORT void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end,
                                String* value);

/// A class whose constructor reads its text form.
template <class T>
concept ReadsItself = std::is_class_v<T> && !std::derived_from<T, std::string> &&
                      std::constructible_from<T, String::IteratorConst&, String::IteratorConst const&>;
template <ReadsItself T>
void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end, T* value) {
    *value = T(position, end);
}

/// Reads a text that is one value and nothing else. Throws a RangeException, and changes nothing, when it is
/// not; columns in its message count from 0.
template <class T> void strepToValue(String const& text, T* value);

/// A type as messages and text forms name it: "Mox::U32", "double", "Kel::TaskStat".
template <class T> std::string typeNameOf() {
    if constexpr (std::integral<T> && !std::same_as<T, bool>)
        return (std::is_signed_v<T> ? "Mox::S" : "Mox::U") + std::to_string(8 * sizeof(T));
    else
        return boost::core::type_name<T>();
}

/// The text ended before the value did.
class MOX_EXPORT PrematureEnd : public RangeException {
  public:
    PrematureEnd() : RangeException("premature end of text") {}
};

/// What the templates above stand on.
namespace StrepImplementation {

MOX_EXPORT String booleanToStrep(bool value);
MOX_EXPORT String unsignedToStrep(U64 value);
MOX_EXPORT String signedToStrep(S64 value);
MOX_EXPORT String doubleToStrep(double value);
MOX_EXPORT bool readBoolean(String::IteratorConst& position, String::IteratorConst const& end);
MOX_EXPORT U64 readUnsigned(String::IteratorConst& position, String::IteratorConst const& end, U64 greatest);
MOX_EXPORT S64 readSigned(String::IteratorConst& position, String::IteratorConst const& end, S64 least,
                          S64 greatest);
[[noreturn]] MOX_EXPORT void throwJunk(std::ptrdiff_t column, std::string const& typeName);

} // namespace StrepImplementation

template <std::integral T> String valueToStrep(T value) {
    if constexpr (std::same_as<T, bool>)
        return StrepImplementation::booleanToStrep(value);
    else if constexpr (std::is_signed_v<T>)
        return StrepImplementation::signedToStrep(value);
    else
        return StrepImplementation::unsignedToStrep(value);
}

template <std::same_as<double> T> String valueToStrep(T value) {
    return StrepImplementation::doubleToStrep(value);
}

template <std::integral T>
void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end, T* value) {
    using Limits = std::numeric_limits<T>;
    if constexpr (std::same_as<T, bool>)
        *value = StrepImplementation::readBoolean(position, end);
    else if constexpr (std::is_signed_v<T>)
        *value = static_cast<T>(StrepImplementation::readSigned(position, end, Limits::min(), Limits::max()));
    else
        *value = static_cast<T>(StrepImplementation::readUnsigned(position, end, Limits::max()));
}

template <class T> void strepToValue(String const& text, T* value) {
    T read{};
    String::IteratorConst position = text.begin();
    sequenceToValue(position, text.end(), &read);
    if (position != text.end())
        StrepImplementation::throwJunk(position - text.begin(), typeNameOf<T>());
    *value = read;
}

} // namespace Mox
