#define MOX_SOURCE_NAME "Task"
#include <task/TaskPriority.h>

#include <mox/Assert.h>
#include <mox/Exception.h>

#include <algorithm>
#include <array>
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

} // namespace

Mox::String8 TaskPriority::oneCharString() const {
    if (value_ >= namings.size())
        MOX_FAIL("false && \"unexpected priority\"");
    return namings[value_].letter;
}

Mox::String8 TaskPriority::stringValue(PriorityEnum value) {
    if (value < namings.size())
        return namings[value].name;
    return "TaskPriority::PriorityEnum(" + std::to_string(static_cast<Mox::S32>(value)) + ")";
}

TaskPriority::PriorityEnum TaskPriority::PriorityEnumInstance(Mox::String8 const& name) {
    auto const found = std::ranges::find(namings, name, &Naming::name);
    if (found == namings.end())
        throw Mox::RangeException("PriorityEnum has no such value: " + name);
    return PriorityEnumInstance(static_cast<Mox::U32>(found - namings.begin()));
}

std::ostream& operator<<(std::ostream& stream, TaskPriority priority) { return stream << priority.toStrep(); }

} // namespace Kel
