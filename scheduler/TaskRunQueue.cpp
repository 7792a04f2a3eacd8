#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskRunQueue.h>

#include <mox/Assert.h>

#include <boost/intrusive/parent_from_member.hpp>

namespace Kel {

void TaskRunQueue::takeToRun(Task& task) {
    ++tasksRun_;
    MOX_ASSERT_AS("runQueue.runnableTasks() >= 0", runnableTasks() >= 0);
    task.taskRunQueueLink_.unlink();
}

void TaskRunQueue::takeBack(Task& task) {
    MOX_ASSERT_AS("task->taskRunQueueLink_.isLinked()", task.taskRunQueueLink_.isLinked());
    task.taskRunQueueLink_.unlink();
    --tasksAdded_;
}

Task* TaskRunQueue::first() {
    TaskRunQueueLink* const link = list_.firstTask();
    return link ? boost::intrusive::get_parent_from_member(link, &Task::taskRunQueueLink_) : nullptr;
}

Mox::U64 TaskRunQueue::linkedTasks() const {
    Mox::U64 count = 0;
    for (TaskRunQueueLink const* entry = list_.front(); entry; entry = list_.after(*entry))
        count += entry->isBookmark() ? 0u : 1u;
    return count;
}

} // namespace Kel
