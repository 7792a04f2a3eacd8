#define MOX_SOURCE_NAME "Task"
#include <task/TaskRecord.h>

#include <mox/Assert.h>

#include <cstring>
#include <limits>
#include <new>

namespace Kel {

Mox::Ptr<TaskRecord> TaskRecord::TaskRecordIs(std::string_view taskName, TaskPriority priority,
                                              Mox::Ptr<SchedulerName const> schedulerName) {
    MOX_ASSERT_AS("taskName.size() <= 0xffffffff", taskName.size() <= std::numeric_limits<Mox::U32>::max());
    void* const memory = ::operator new(sizeof(TaskRecord) + taskName.size());
    if (!taskName.empty())
        std::memcpy(static_cast<char*>(memory) + sizeof(TaskRecord), taskName.data(), taskName.size());
    return new (memory) TaskRecord(taskName, priority, std::move(schedulerName));
}

void TaskRecord::destroy(TaskRecord const* record) noexcept {
    record->~TaskRecord();
    ::operator delete(const_cast<TaskRecord*>(record));
}

TaskRecord::TaskRecord(std::string_view taskName, TaskPriority priority,
                       Mox::Ptr<SchedulerName const> schedulerName)
    : priority_(priority), nameLength_(static_cast<Mox::U32>(taskName.size())),
      schedulerName_(std::move(schedulerName)) {}

} // namespace Kel
