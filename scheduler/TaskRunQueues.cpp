#include <scheduler/TaskRunQueues.h>

namespace Kel {

using Mox::U32;

namespace {

// By priority; absolute and scavenge take no part.
constexpr std::array<U32, TaskRunQueues::count> runFactors{0, 64, 8, 1, 0};

} // namespace

template <U32 p> U32 TaskRunQueues::weightedBacklog() const {
    return static_cast<U32>(queues_[p].runnableTasks()) * runFactors[p];
}

/// In unsigned 32-bit arithmetic, which wraps. For about a thousand tasks of each priority no wrap makes a
/// lower task wait longer than the bound; docs/design.md has the condition and the proof.
template <U32 p> bool TaskRunQueues::givesWay(U32 backToBackRunCount) const {
    U32 lower = weightedBacklog<TaskPriority::low>();
    if constexpr (p == TaskPriority::high)
        lower += weightedBacklog<TaskPriority::normal>();
    return lower != 0 && lower * backToBackRunCount > weightedBacklog<p>();
}

bool TaskRunQueues::attemptLowerPriorityBump(TaskPriority priority, U32 backToBackRunCount) const {
    switch (priority.numericValue()) {
    case TaskPriority::high: return givesWay<TaskPriority::high>(backToBackRunCount);
    case TaskPriority::normal: return givesWay<TaskPriority::normal>(backToBackRunCount);
    default: return false;
    }
}

/// An empty queue ends its streak. A streak that gives way is not over until a lower task was found: the
/// backlog below may be all bookmarks.
template <U32 p> [[gnu::always_inline]] inline Task* TaskRunQueues::pickFrom(TaskTimeStamp now) {
    TaskRunQueue& queue = queues_[p];
    Task* const task = queue.first();
    if (!task) {
        queue.backToBackRunCountIs(0);
        return pickBelow<p>(now);
    }
    if constexpr (TaskPriority(TaskPriority::PriorityEnumInstance(p)).isValidTargetPriorityForBump())
        if (givesWay<p>(queue.backToBackRunCount())) [[unlikely]]
            return bump<p>(task, now);
    return take<p>(task, now);
}

template <U32 p>
[[gnu::always_inline]] inline Task* TaskRunQueues::pickBelow([[maybe_unused]] TaskTimeStamp now) {
    if constexpr (p + 1 < count)
        return pickFrom<p + 1>(now);
    else
        return nullptr;
}

template <U32 p> [[gnu::always_inline]] inline Task* TaskRunQueues::take(Task* task, TaskTimeStamp now) {
    TaskRunQueue& queue = queues_[p];
    bool const isLong = queue.leave(*task, now, Leaving::picked) > TaskRunQueue::cached;
    return isLong ? queue.prefetchAfter(task) : task;
}

/// Where nothing is found below, the streak goes on with the task at hand.
template <U32 p> [[gnu::noinline]] Task* TaskRunQueues::bump(Task* task, TaskTimeStamp now) {
    Task* const lower = pickBelow<p>(now);
    if (!lower)
        return take<p>(task, now);
    queues_[p].backToBackRunCountIs(0);
    return lower;
}

Task* TaskRunQueues::pick(TaskTimeStamp now) { return pickFrom<TaskPriority::absolute>(now); }

Task* TaskRunQueues::pick(TaskTimeStamp now, TaskPriority from) {
    switch (from.numericValue()) {
    case TaskPriority::absolute: return pick(now);
    case TaskPriority::high: return pickFrom<TaskPriority::high>(now);
    case TaskPriority::normal: return pickFrom<TaskPriority::normal>(now);
    case TaskPriority::low: return pickFrom<TaskPriority::low>(now);
    case TaskPriority::scavenge: return pickFrom<TaskPriority::scavenge>(now);
    default: return nullptr;
    }
}

} // namespace Kel
