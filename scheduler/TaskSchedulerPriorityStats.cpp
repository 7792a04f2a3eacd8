#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerPriorityStats.h>

#include <mox/Assert.h>

namespace Kel {

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(TaskSchedulerPriorityStats const& rhs) {
    MOX_ASSERT_AS("taskPriority() == rhs.taskPriority()", taskPriority() == rhs.taskPriority());
    boost::mp11::mp_for_each<FieldsOf<TaskSchedulerPriorityStats>>([&](auto field) {
        if constexpr (requires { this->*field.pointer += rhs.*field.pointer; }) // all but the key
            this->*field.pointer += rhs.*field.pointer;
    });
    return *this;
}

} // namespace Kel
