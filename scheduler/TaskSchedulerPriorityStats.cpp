#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerPriorityStats.h>

#include <mox/Assert.h>
#include <mox/detail/FieldLog.h>
#include <mox/detail/FieldText.h>

#include <ostream>

namespace Kel {

TaskSchedulerPriorityStats::TaskSchedulerPriorityStats(Mox::String::IteratorConst& position,
                                                       Mox::String::IteratorConst const& end) {
    Mox::sequenceToFields(position, end, this);
}

TaskSchedulerPriorityStats::TaskSchedulerPriorityStats(Mox::NboAttrLog::In* in) { readFields(in, this); }

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(TaskSchedulerPriorityStats const& rhs) {
    MOX_ASSERT_AS("taskPriority() == rhs.taskPriority()", taskPriority() == rhs.taskPriority());
    boost::mp11::mp_for_each<Mox::FieldsOf<TaskSchedulerPriorityStats>>([&](auto field) {
        if constexpr (requires { this->*field.pointer += rhs.*field.pointer; }) // all but the key
            this->*field.pointer += rhs.*field.pointer;
    });
    return *this;
}

Mox::String valueToStrep(TaskSchedulerPriorityStats const& stats) { return Mox::fieldsToStrep(stats); }

std::ostream& operator<<(std::ostream& stream, TaskSchedulerPriorityStats const& stats) {
    return stream << valueToStrep(stats);
}

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 TaskSchedulerPriorityStats const& stats) {
    writeFields(out, stats);
    return out;
}

} // namespace Kel
