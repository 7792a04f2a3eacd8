#include <scheduler/TaskSchedulerQueueStats.h>

#include <algorithm>

namespace Kel {

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(TaskSchedulerQueueStats const& rhs) {
    if (this == &rhs)
        return *this += TaskSchedulerQueueStats(rhs);
    for (auto const& [priority, right] : rhs.priorities_) {
        // A missing entry counts as an all-zero record, whose priority is absolute.
        TaskSchedulerPriorityStats const* const left = priorities_.find(priority);
        priorityIs((left ? *left : TaskSchedulerPriorityStats()) + right);
    }
    return *this;
}

bool operator==(TaskSchedulerQueueStats const& a, TaskSchedulerQueueStats const& b) {
    return a.priorities_.size() == b.priorities_.size() &&
           std::ranges::all_of(a.priorities_, [&](auto const& entry) {
               TaskSchedulerPriorityStats const* const other = b.priority(entry.first);
               return other && *other == entry.second;
           });
}

} // namespace Kel
