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

template <U32 p> [[gnu::always_inline]] inline Task* TaskRunQueues::pickFrom() {
    TaskRunQueue& queue = queues_[p];
    Task* const task = queue.first();
    if (!task) {
        queue.backToBackRunCountIs(0);
        return pickBelow<p>();
    }
    if constexpr (TaskPriority(TaskPriority::PriorityEnumInstance(p)).isValidTargetPriorityForBump())
        if (givesWay<p>(queue.backToBackRunCount())) [[unlikely]]
            if (Task* const lower = bumpBelow<p>())
                return lower;
    queue.backToBackRunCountIs(queue.backToBackRunCount() + 1);
    queue.takeToRun(*task);
    if (queue.isLong()) [[unlikely]]
        queue.prefetchAfter(*task);
    return task;
}

template <U32 p> [[gnu::always_inline]] inline Task* TaskRunQueues::pickBelow() {
    if constexpr (p + 1 < count)
        return pickFrom<p + 1>();
    else
        return nullptr;
}

template <U32 p> [[gnu::noinline]] Task* TaskRunQueues::bumpBelow() {
    Task* const lower = pickBelow<p>();
    if (lower)
        queues_[p].backToBackRunCountIs(0);
    return lower;
}

Task* TaskRunQueues::pick() { return pickFrom<TaskPriority::absolute>(); }

Task* TaskRunQueues::pick(TaskPriority from) {
    switch (from.numericValue()) {
    case TaskPriority::absolute: return pick();
    case TaskPriority::high: return pickFrom<TaskPriority::high>();
    case TaskPriority::normal: return pickFrom<TaskPriority::normal>();
    case TaskPriority::low: return pickFrom<TaskPriority::low>();
    case TaskPriority::scavenge: return pickFrom<TaskPriority::scavenge>();
    default: return nullptr;
    }
}

} // namespace Kel
