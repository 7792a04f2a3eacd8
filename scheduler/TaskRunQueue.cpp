#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskRunQueue.h>

namespace Kel {

void TaskRunQueue::noteTakenBack(Task& task, TaskTimeStamp const& now) {
    MOX_ASSERT_AS("task->taskRunQueueLink_.isLinked()", task.taskRunQueueLink_.isLinked());
    task.taskHistoryInsertTs(TaskSchedulerEventType::unschedule, now);
    --tasksAdded_;
}

/// The entry that was added so many additions ago learns where this one is: when it runs, this one will be so
/// many runs away, unless something changes. Kept in a ring of the latest additions, from which the dead are
/// struck out, because an entry is written to here; where it points is never looked at.
[[gnu::noinline]] void TaskRunQueue::noteAhead(TaskRunQueueLink& added) {
    TaskRunQueueLink*& earlier = recent_[static_cast<std::size_t>(tasksAdded_) % runsAhead];
    if (earlier)
        earlier->aheadIs(&added);
    earlier = &added;
    hasRecent_ = true;
}

/// Has the caches fetch, while the taken task runs, first the head of a task some runs ahead, then, two runs
/// ahead, all that the task refers to. With many tasks nothing of them is in a cache when their turn comes,
/// and the list alone cannot tell in time where they are. Source: Luk and Mowry, "Compiler-Based Prefetching
/// for Recursive Data Structures", 1996 (jump pointers).
[[gnu::noinline]] Task* TaskRunQueue::prefetchAfter(Task* taken) {
    Task::prefetchHead(taken->taskRunQueueLink_.ahead());
    if (TaskRunQueueLink* const first = list_.front())
        if (TaskRunQueueLink* const second = list_.after(*first); second && !second->isBookmark())
            boost::intrusive::get_parent_from_member(second, &Task::taskRunQueueLink_)->prefetch();
    return taken;
}

} // namespace Kel
