#include <scheduler/TaskSchedulerQueueStats.h>

#include <mox/NboAttrLog.h>
#include <mox/detail/StrepCursor.h>

#include <algorithm>
#include <ostream>

namespace Kel {

TaskSchedulerQueueStats::TaskSchedulerQueueStats(Mox::String::IteratorConst& position,
                                                 Mox::String::IteratorConst const& end) {
    Mox::StrepCursor cursor(position, end);
    cursor.expect("None");
    position = cursor.position();
}

TaskSchedulerQueueStats::TaskSchedulerQueueStats(Mox::NboAttrLog::In* in) {
    while (TaskPriority(in) != TaskPriority::absolute)
        priorityIs(TaskSchedulerPriorityStats(in));
}

/// A missing entry counts as an all-zero record, whose priority is absolute.
TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(TaskSchedulerQueueStats const& rhs) {
    if (this == &rhs)
        return *this += TaskSchedulerQueueStats(rhs);
    for (auto const& [priority, right] : rhs.priorities_) {
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

Mox::String valueToStrep(TaskSchedulerQueueStats const&) { return "None"; }

std::ostream& operator<<(std::ostream& stream, TaskSchedulerQueueStats const& stats) {
    return stream << valueToStrep(stats);
}

Mox::Ptr<Mox::NboAttrLog::Out> const& operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                 TaskSchedulerQueueStats const& stats) {
    for (auto const& [priority, entry] : stats.priority())
        out << entry;
    return out << TaskPriority(TaskPriority::absolute);
}

} // namespace Kel
