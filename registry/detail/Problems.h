#pragma once

#include <mox/Attribute.h>
#include <mox/AttributeTable.h>
#include <task/TaskTime.h>

namespace Kel {

class Task;

/// What stands in the way of telling the task's reactors that it runs: a run may run a group, or a reset.
Mox::Problem problemOfRunning(Task const& task);

/// What a task's quantum may be.
extern Mox::Range<Mox::Seconds> const quantumRange;
/// Seconds that are kept as nanoseconds.
extern Mox::Range<Mox::Seconds> const durationRange;
/// A stamp that a run may have begun at.
extern Mox::Range<TaskTimeStamp> const stampRange;

} // namespace Kel
