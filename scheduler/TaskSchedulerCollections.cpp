#define MOX_SOURCE_NAME "TaskScheduler"
#include <mox/Exception.h>
#include <scheduler/TaskScheduler.h>

#include <utility>

// The registry and the maps of a scheduler.

namespace Kel {

using Mox::U32;

namespace {

template <class Map, class Key> auto valueOr0(Map const& map, Key const& key) {
    auto const* const value = map.find(key);
    return value ? *value : 0;
}

/// Returns whether that changed anything.
template <class Map, class Key, class Value> bool setTo(Map& map, Key const& key, Value const& value) {
    auto const* const there = map.find(key);
    if (there && *there == value)
        return false;
    map.valueIs(key, value);
    return true;
}

/// Adds to an entry, made when there is none. Returns the sum, and whether that changed anything.
template <class Map, class Key> std::pair<U32, bool> add(Map& map, Key const& key, U32 count) {
    if (U32* const there = map.find(key)) {
        *there += count;
        return {*there, count != 0};
    }
    return {map.valueIs(key, count), true};
}

/// Takes an entry out, and its value with it. False when there is none.
template <class Map, class Key, class Value> bool takeOut(Map& map, Key const& key, Value* value) {
    auto* const there = map.find(key);
    if (!there)
        return false;
    *value = std::move(*there);
    return map.erase(key);
}

/// The key where an iterator stands, with the iterator moved on.
template <class Iterator> auto stepOver(Iterator& at) {
    auto const key = at->first;
    ++at;
    return key;
}

} // namespace

// Tasks, by key

void TaskScheduler::tasksRegisteredIs(Task* task) {
    if (!task)
        throw Mox::RangeException("null _tasksRegistered parameter to mutator for "
                                  "Kel::TaskScheduler::tasksRegistered not allowed");
    tasksRegistered_.insert(task);
    tasksRegisteredNotify(task->taskKey());
}

Task* TaskScheduler::tasksRegisteredDel(TaskKey const& key) {
    Task* const task = tasksRegistered_.remove(key);
    if (task)
        tasksRegisteredNotify(key);
    return task;
}

Task* TaskScheduler::tasksRegisteredDel(TasksRegisteredIterator& at) {
    Task* const task = *at;
    if (!task)
        return nullptr;
    at.task_ = tasksRegistered_.after(task);
    return tasksRegisteredDel(task->taskKey());
}

void TaskScheduler::tasksRegisteredDelAll() {
    for (auto at = tasksRegisteredIterator(); at;)
        tasksRegisteredDel(at);
}

void TaskScheduler::tasksRegisteredNotify(TaskKey const&) {}

// Tasks, counted by priority

U32 TaskScheduler::tasksPerPriority(TaskPriority priority) const {
    return valueOr0(tasksPerPriority_, priority);
}

U32 TaskScheduler::tasksPerPriorityInc(TaskPriority priority, U32 count) {
    auto const [total, changed] = add(tasksPerPriority_, priority, count);
    if (changed)
        tasksPerPriorityNotify(priority);
    return total;
}

U32 TaskScheduler::tasksPerPriorityDec(TaskPriority priority, U32 count) {
    return TaskScheduler::tasksPerPriorityInc(priority, 0 - count);
}

void TaskScheduler::tasksPerPriorityIs(TaskPriority priority, U32 count) {
    if (setTo(tasksPerPriority_, priority, count))
        tasksPerPriorityNotify(priority);
}

U32 TaskScheduler::tasksPerPriorityDel(TaskPriority priority) {
    U32 count = 0;
    if (takeOut(tasksPerPriority_, priority, &count))
        tasksPerPriorityNotify(priority);
    return count;
}

U32 TaskScheduler::tasksPerPriorityDel(TasksPerPriority::IteratorConst& at) {
    return tasksPerPriorityDel(stepOver(at));
}

void TaskScheduler::tasksPerPriorityDelAll() {
    for (auto at = tasksPerPriority_.begin(); at != tasksPerPriority_.end();)
        tasksPerPriorityDel(at);
}

void TaskScheduler::tasksPerPriorityNotify(TaskPriority) {}

// Dead tasks, counted by priority

U32 TaskScheduler::deadTasksPerPriority(TaskPriority priority) const {
    return valueOr0(deadTasksPerPriority_, priority);
}

U32 TaskScheduler::deadTasksPerPriorityInc(TaskPriority priority, U32 count) {
    auto const [total, changed] = add(deadTasksPerPriority_, priority, count);
    if (changed)
        deadTasksPerPriorityNotify(priority);
    return total;
}

void TaskScheduler::deadTasksPerPriorityIs(TaskPriority priority, U32 count) {
    if (setTo(deadTasksPerPriority_, priority, count))
        deadTasksPerPriorityNotify(priority);
}

U32 TaskScheduler::deadTasksPerPriorityDel(TaskPriority priority) {
    U32 count = 0;
    if (takeOut(deadTasksPerPriority_, priority, &count))
        deadTasksPerPriorityNotify(priority);
    return count;
}

U32 TaskScheduler::deadTasksPerPriorityDel(TasksPerPriority::IteratorConst& at) {
    return deadTasksPerPriorityDel(stepOver(at));
}

void TaskScheduler::deadTasksPerPriorityDelAll() {
    for (auto at = deadTasksPerPriority_.begin(); at != deadTasksPerPriority_.end();)
        deadTasksPerPriorityDel(at);
}

void TaskScheduler::deadTasksPerPriorityNotify(TaskPriority) {}

// Statistics of dead tasks, by name

void TaskScheduler::newDeadTaskStats(Mox::String8 const& name, TaskStat const& stat) {
    deadTaskStats_.valueIs(name, stat);
    deadTaskStatsNotify(name);
}

TaskStat TaskScheduler::deadTaskStatsInc(Mox::String8 const& name, TaskStat const& stat) {
    if (TaskStat* const there = deadTaskStats_.find(name))
        return *there += stat;
    TaskStat const merged = TaskStat() + stat;
    newDeadTaskStats(name, merged);
    return merged;
}

void TaskScheduler::deadTaskStatsIs(Mox::String8 const& name, TaskStat const& stat) {
    newDeadTaskStats(name, stat);
}

TaskStat TaskScheduler::deadTaskStatsDel(Mox::String8 const& name) {
    TaskStat stat;
    if (takeOut(deadTaskStats_, name, &stat))
        deadTaskStatsNotify(name);
    return stat;
}

TaskStat TaskScheduler::deadTaskStatsDel(DeadTaskStats::IteratorConst& at) {
    return deadTaskStatsDel(stepOver(at));
}

void TaskScheduler::deadTaskStatsDelAll() {
    for (auto at = deadTaskStats_.begin(); at != deadTaskStats_.end();)
        deadTaskStatsDel(at);
}

void TaskScheduler::deadTaskStatsNotify(Mox::String8 const&) {}

} // namespace Kel
