#pragma once

#include <kel/DumpContext.h>
#include <mox/Seconds.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/TaskStat.h>

#include <string>
#include <vector>

namespace Kel {

class TaskScheduler;

/// The statistics report: fixed tables for operators. Every line is preceded by `indent` blanks.

/// Prints the queue table, the slip, the legend and the task tables. `deadStats` is null when dead tasks are
/// not wanted; the vectors are sorted in place, by total run time, largest first.
MOX_EXPORT void printStatsImpl(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent,
                               TaskSchedulerQueueStats const& queueStats, Mox::Seconds maxSchedulerSlip,
                               std::vector<TaskStat>* stats, Mox::U32 leftOut,
                               std::vector<TaskStat>* deadStats, Mox::U32 deadLeftOut,
                               bool displayMemoryAddressOfTasks);

/// Prints one task table. The name column is as wide as the longest name in it, a key that is appended
/// included.
MOX_EXPORT void taskSchedulerDisplay(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent,
                                     std::vector<TaskStat>* stats, std::string const& title, Mox::U32 leftOut,
                                     bool isDeadTable, bool displayMemoryAddressOfTasks);

/// Collects the scheduler's statistics and prints them: the part of the report that root and others share.
void printSchedulerStats(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent,
                         TaskScheduler const& scheduler, bool includeNeverRunTasks, bool includeDeadTasks,
                         bool displayMemoryAddressOfTasks);

/// The line that stands for the history in the report of a scheduler that is no root; it ends without a
/// newline.
void printHistoryIsInRoot(Mox::Ptr<DumpContext const> const& context, Mox::U32 indent);

} // namespace Kel
