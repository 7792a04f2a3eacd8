#define MOX_SOURCE_NAME "Task"
#include <task/TaskRecord.h>

#include <mox/Assert.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace Kel {

/// Record and name in one allocation: a task's making and its end are bounded by the allocator, and each
/// event that is displayed finds the name beside what it has just read.
Mox::Ptr<TaskRecord> TaskRecord::TaskRecordIs(std::string_view taskName, TaskPriority priority,
                                              Mox::Ptr<SchedulerName const> schedulerName) {
    MOX_ASSERT(taskName.size() < 1u << 29);
    void* const memory = ::operator new(sizeof(TaskRecord) + taskName.size());
    if (!taskName.empty())
        std::memcpy(static_cast<char*>(memory) + sizeof(TaskRecord), taskName.data(), taskName.size());
    return new (memory) TaskRecord(taskName, priority, std::move(schedulerName));
}

void TaskRecord::destroy(TaskRecord const* record) noexcept {
    record->~TaskRecord();
    ::operator delete(const_cast<TaskRecord*>(record));
}

/// A priority beyond the enumeration stays beyond it in three bits, so that registering the task still finds
/// it invalid.
TaskRecord::TaskRecord(std::string_view taskName, TaskPriority priority,
                       Mox::Ptr<SchedulerName const> schedulerName)
    : priority_(std::min<Mox::U32>(priority.numericValue(), 7) & 7u),
      nameLength_(static_cast<Mox::U32>(taskName.size()) & 0x1fffffffu),
      schedulerName_(std::move(schedulerName)) {}

} // namespace Kel
