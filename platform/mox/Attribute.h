#pragma once

#include <mox/Problem.h>
#include <mox/Subject.h>

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Mox {

enum class AttributeKind : U8 {
    value,      ///< read, and written where it can be
    constant,   ///< the same for every entity of the type
    collection, ///< entries by key; its own text is their number
    reactor     ///< its text is the entity that it reacts to, None without one
};

MOX_EXPORT std::string_view toString(AttributeKind kind);

/// One attribute of a type, with the type itself forgotten. Made by an AttributeTable, used by a TypeEntry,
/// which states in which order the functions are called.
struct Attribute {
    std::string name;
    AttributeKind kind = AttributeKind::value;
    std::string type;  // that of its value, or, for a collection, that of an entry's value
    std::string range; // in words; empty when its type says all

    std::function<String(Subject const&)> read;

    // Empty unless it can be written.
    std::function<Problem(String const& text)> problemOfText;
    std::function<Problem(Subject const&, String const& text)> problemOfWriting;
    std::function<void(Subject const&, String const& text)> write;

    // Empty unless it is a collection. Of its keys the first, and no more than asked for.
    std::function<std::vector<String>(Subject const&, std::size_t most)> keys;
    std::function<std::optional<String>(Subject const&, String const& key)> entry;

    bool isWritable() const { return write != nullptr; }
};

/// One operation that can be called with texts for arguments.
struct Operation {
    using Arguments = std::span<String const>;

    std::string name;
    std::vector<std::string> parameterTypes;
    std::string resultType; // empty when there is no result

    std::function<Problem(Arguments)> problemOfTexts;
    std::function<Problem(Subject const&, Arguments)> problemOfCalling;
    std::function<String(Subject const&, Arguments)> call;
};

} // namespace Mox
