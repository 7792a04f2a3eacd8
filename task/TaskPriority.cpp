#define MOX_SOURCE_NAME "Task"
#include <task/TaskPriority.h>

#include <mox/Assert.h>
#include <mox/Exception.h>
#include <mox/NboAttrLog.h>
#include <mox/detail/StrepCursor.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ostream>

namespace Kel {

namespace {

struct Naming {
    char const* name;
    char const* letter;
};

constexpr std::array<Naming, TaskPriority::oneBeyondLast + 1> namings{{{"absolute", "A"},
                                                                       {"high", "H"},
                                                                       {"normal", "N"},
                                                                       {"low", "L"},
                                                                       {"scavenge", "S"},
                                                                       {"oneBeyondLast", "-"}}};

// What a number outside the enumeration is called: this, the number and a closing parenthesis.
constexpr std::string_view numbered = "TaskPriority::PriorityEnum(";

} // namespace

TaskPriority::TaskPriority(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end) {
    sequenceToValue(position, end, &value_);
}

Mox::String8 TaskPriority::oneCharString() const {
    if (value_ >= namings.size())
        MOX_FAIL("false && \"unexpected priority\"");
    return namings[value_].letter;
}

Mox::String8 TaskPriority::stringValue(PriorityEnum value) {
    if (value < namings.size())
        return namings[value].name;
    return std::string(numbered) + std::to_string(static_cast<Mox::S32>(value)) + ")";
}

TaskPriority::PriorityEnum TaskPriority::PriorityEnumInstance(Mox::String8 const& name) {
    if (name.starts_with(numbered)) {
        Mox::S32 number = 0;
        char const* const end = name.data() + name.size();
        auto const read = std::from_chars(name.data() + numbered.size(), end, number);
        if (read.ec == std::errc() && std::string_view(read.ptr, end) == ")")
            return static_cast<PriorityEnum>(number);
    }
    auto const found = std::ranges::find(namings, name, &Naming::name);
    if (found == namings.end())
        throw Mox::RangeException("PriorityEnum has no such value: " + name);
    return PriorityEnumInstance(static_cast<Mox::U32>(found - namings.begin()));
}

std::ostream& operator<<(std::ostream& stream, TaskPriority priority) { return stream << priority.toStrep(); }

Mox::String valueToStrep(TaskPriority::PriorityEnum value) {
    return Mox::valueToStrep(TaskPriority::stringValue(value));
}

Mox::String valueToStrep(TaskPriority const& priority) { return valueToStrep(priority.numericValue()); }

void sequenceToValue(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end,
                     TaskPriority::PriorityEnum* value) {
    Mox::StrepCursor cursor(position, end);
    Mox::String name;
    cursor.read(&name);
    *value = TaskPriority::PriorityEnumInstance(name);
    position = cursor.position();
}

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 TaskPriority const& priority) {
    return out << static_cast<Mox::S32>(priority.value_);
}

} // namespace Kel
