#include <scheduler/TaskRunQueues.h>

namespace Kel {

using Mox::U32;

namespace {

// By priority; absolute and scavenge take no part.
constexpr std::array<U32, TaskRunQueues::count> runFactors{0, 64, 8, 1, 0};

} // namespace

Task* TaskRunQueues::pick(TaskPriority from) {
    for (U32 p = from.numericValue(); p < count; ++p) {
        TaskRunQueue& queue = queues_[p];
        Task* const task = queue.first();
        if (!task) {
            queue.backToBackRunCountIs(0);
            continue;
        }
        TaskPriority const priority = TaskPriority::PriorityEnumInstance(p);
        if (attemptLowerPriorityBump(priority, queue.backToBackRunCount()))
            if (Task* const lower = pick(priority.nextLowerPriority())) {
                queue.backToBackRunCountIs(0);
                return lower;
            }
        queue.backToBackRunCountIs(queue.backToBackRunCount() + 1);
        queue.takeToRun(*task);
        return task;
    }
    return nullptr;
}

bool TaskRunQueues::attemptLowerPriorityBump(TaskPriority priority, U32 backToBackRunCount) const {
    if (!priority.isValidTargetPriorityForBump())
        return false;
    U32 lower = 0;
    for (U32 q = priority.numericValue() + 1; q <= TaskPriority::low; ++q)
        lower += weightedBacklog(q);
    return lower != 0 && lower * backToBackRunCount > weightedBacklog(priority.numericValue());
}

U32 TaskRunQueues::weightedBacklog(U32 priority) const {
    return static_cast<U32>(queues_[priority].runnableTasks()) * runFactors[priority];
}

} // namespace Kel
