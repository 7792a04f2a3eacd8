#pragma once

#include <mox/Attribute.h>
#include <mox/AttributeTable.h>
#include <task/TaskPriority.h>
#include <task/TaskTime.h>

namespace Kel {

class Task;
class TaskGroup;
class TaskScheduler;
class TaskSchedulerRoot;

// What would fail by an assertion, told before it is tried: each function names the problem, or none.

/// Of anything that only the thread of the tree may do.
Mox::Problem problemOfThread(TaskScheduler const& scheduler);
/// Of having the scheduler run: a driver runs it, or a chain of groups below one. A class of an application
/// counts as a driver: as every scheduler must, it overrides requestSchedulerRun().
Mox::Problem problemOfRequest(TaskScheduler const& scheduler);
/// Of putting the task on its run queue.
Mox::Problem problemOfScheduling(Task const& task);
/// Of telling the task's reactors that it runs.
Mox::Problem problemOfRunning(Task const& task);
/// Of going idle, which schedules the root's trim task.
Mox::Problem problemOfTrimming(TaskSchedulerRoot const& root);
Mox::Problem problemOfResettingStats(TaskScheduler const& scheduler);
/// Of resetting a group by its parent task, which has cleared its own figures by then: so also what the group
/// would tell by an exception.
Mox::Problem problemOfResettingGroup(TaskGroup const& group);
/// Of making a task of that priority there.
Mox::Problem problemOfRegistering(TaskScheduler const& scheduler, TaskPriority priority);

/// What a task's quantum may be.
extern Mox::Range<Mox::Seconds> const quantumRange;
/// Seconds that are kept as nanoseconds.
extern Mox::Range<Mox::Seconds> const durationRange;
/// A stamp that a run may have begun at.
extern Mox::Range<TaskTimeStamp> const stampRange;

} // namespace Kel
