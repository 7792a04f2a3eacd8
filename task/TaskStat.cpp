#define MOX_SOURCE_NAME "Task"
#include <task/TaskStat.h>

#include <mox/Assert.h>
#include <mox/Exception.h>
#include <mox/detail/FieldLog.h>
#include <mox/detail/FieldText.h>
#include <mox/detail/StrepCursor.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <ostream>

namespace Kel {

namespace {

/// How a field of the left record takes that of the right one.
enum class Merge { keep, sum, greater, latest, oneMore };

constexpr std::array mergeRules{
    Merge::keep,    // taskName
    Merge::keep,    // taskKey
    Merge::keep,    // taskPriority
    Merge::sum,     // taskRun
    Merge::sum,     // taskTotalRunTime
    Merge::sum,     // taskWorkCount
    Merge::sum,     // taskQuantumViolation500
    Merge::sum,     // taskQuantumViolation200
    Merge::greater, // taskRunTimeHighWaterMark
    Merge::latest,  // taskLastSchedulingLatency
    Merge::greater, // taskSchedulingLatencyHighWaterMark
    Merge::oneMore, // taskDeadCount: the merge itself is the death
    Merge::latest,  // taskStatus
};

template <Merge rule, class T> void mergeField(T& left, [[maybe_unused]] T const& right) {
    if constexpr (rule == Merge::sum)
        left += right;
    else if constexpr (rule == Merge::greater)
        left = std::max(left, right);
    else if constexpr (rule == Merge::latest)
        left = right;
    else if constexpr (rule == Merge::oneMore)
        ++left;
}

/// The names of the bits of a status.
constexpr std::array<std::string_view, 5> flagNames{"taskTimer", "taskTimerRunning", "taskOnRunQueue",
                                                    "taskCurrentlyRunning", "taskSuspendedForTest"};

} // namespace

void TaskStat::TaskStatus::valueIs(Mox::U32 value) {
    if (value > valueMax)
        throw Mox::RangeException("TaskStatus::value > 0x1f not allowed");
    value_ = value;
}

/// More digits than the greatest value has are skipped without being added up: a number too large for any
/// integer is then refused as every number above the greatest value.
Mox::U32 TaskStat::TaskStatus::readValue(Mox::String::IteratorConst& position,
                                         Mox::String::IteratorConst const& end) {
    constexpr std::size_t digitsOfMax = 2;
    Mox::StrepCursor cursor(position, end);
    std::string_view digits = cursor.rest();
    digits = digits.substr(0, digits.find_first_not_of("0123456789"));
    std::size_t const zeros = std::min(digits.find_first_not_of('0'), digits.size());
    Mox::U32 value = valueMax + 1;
    if (digits.size() - zeros > digitsOfMax)
        cursor.skip(static_cast<std::ptrdiff_t>(digits.size()));
    else
        cursor.read(&value);
    position = cursor.position();
    return std::min(value, valueMax + 1);
}

TaskStat::TaskStatus::TaskStatus(Mox::String::IteratorConst& position,
                                 Mox::String::IteratorConst const& end) {
    std::optional<TaskStatus> whole;
    Mox::readAttributes(position, end, Mox::typeNameOf<TaskStatus>(), [&](std::string_view name, auto& at) {
        auto const flag = std::ranges::find(flagNames, name);
        if (flag != flagNames.end()) {
            bool on = false;
            Mox::sequenceToValue(at, end, &on);
            flagIs(static_cast<Mox::U32>(flag - flagNames.begin()), on);
        } else if (name == "value") {
            whole.emplace(readValue(at, end));
        } else
            return false;
        return true;
    });
    if (whole)
        *this = *whole;
}

TaskStat::TaskStat(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end) {
    Mox::sequenceToFields(position, end, this);
}

TaskStat::TaskStat(Mox::NboAttrLog::In* in) { readFields(in, this); }

TaskStat& TaskStat::merge(TaskStat const& rhs, std::string_view name) {
    if (taskName_.empty()) {
        taskName_ = name;
        taskPriority_ = rhs.taskPriority_;
    }
    MOX_ASSERT_AS("taskName() == rhs.taskName()", taskName_ == name);

    using Fields = Mox::FieldsOf<TaskStat>;
    static_assert(boost::mp11::mp_size<Fields>::value == mergeRules.size());
    boost::mp11::mp_for_each<boost::mp11::mp_iota_c<mergeRules.size()>>([&](auto i) {
        constexpr auto field = boost::mp11::mp_at_c<Fields, i>::pointer;
        mergeField<mergeRules[i]>(this->*field, rhs.*field);
    });
    return *this;
}

Mox::String TaskStat::taskStatusString() const {
    TaskStatus const& status = taskStatus_;
    char const first = status.taskCurrentlyRunning()   ? '*'
                       : status.taskSuspendedForTest() ? 'S'
                       : !status.taskTimer()           ? ' '
                       : status.taskTimerRunning()     ? 'T'
                                                       : 't';
    char const letter = taskPriority_.oneCharString().front();
    char const second = status.taskOnRunQueue() ? letter : static_cast<char>(std::tolower(letter));
    return std::string{first, second};
}

Mox::String valueToStrep(TaskStat const& stat) { return Mox::fieldsToStrep(stat); }

Mox::String valueToStrep(TaskStat::TaskStatus const& status) {
    Mox::AttributeWriter writer(Mox::typeNameOf<TaskStat::TaskStatus>());
    for (Mox::U32 bit = 0; bit < flagNames.size(); ++bit)
        writer.write(flagNames[bit], (status.value() >> bit & 1u) != 0);
    writer.write("value", status.value());
    return writer.text();
}

std::ostream& operator<<(std::ostream& stream, TaskStat const& stat) { return stream << valueToStrep(stat); }

std::ostream& operator<<(std::ostream& stream, TaskStat::TaskStatus const& status) {
    return stream << valueToStrep(status);
}

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 TaskStat const& stat) {
    writeFields(out, stat);
    return out;
}

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 TaskStat::TaskStatus const& status) {
    return out << status.value();
}

} // namespace Kel
