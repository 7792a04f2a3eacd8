#define MOX_SOURCE_NAME "Task"
#include <task/TaskStat.h>

#include <mox/Assert.h>
#include <mox/Exception.h>

#include <algorithm>
#include <array>
#include <cctype>

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

template <Merge rule, class T> void merge(T& left, [[maybe_unused]] T const& right) {
    if constexpr (rule == Merge::sum)
        left += right;
    else if constexpr (rule == Merge::greater)
        left = std::max(left, right);
    else if constexpr (rule == Merge::latest)
        left = right;
    else if constexpr (rule == Merge::oneMore)
        ++left;
}

} // namespace

void TaskStat::TaskStatus::valueIs(Mox::U32 value) {
    if (value > valueMax)
        throw Mox::RangeException("TaskStatus::value > 0x1f not allowed");
    value_ = value;
}

TaskStat& TaskStat::operator+=(TaskStat const& rhs) {
    if (taskName_.empty()) {
        taskName_ = rhs.taskName_;
        taskPriority_ = rhs.taskPriority_;
    }
    MOX_ASSERT_AS("taskName() == rhs.taskName()", taskName() == rhs.taskName());

    using Fields = FieldsOf<TaskStat>;
    static_assert(boost::mp11::mp_size<Fields>::value == mergeRules.size());
    boost::mp11::mp_for_each<boost::mp11::mp_iota_c<mergeRules.size()>>([&](auto i) {
        constexpr auto field = boost::mp11::mp_at_c<Fields, i>::pointer;
        merge<mergeRules[i]>(this->*field, rhs.*field);
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

} // namespace Kel
