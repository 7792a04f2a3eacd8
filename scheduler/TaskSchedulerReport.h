#pragma once

#include <kel/DumpContext.h>
#include <kel/SlicedText.h>
#include <mox/Ptr.h>
#include <mox/Seconds.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/TaskStat.h>

#include <memory>
#include <string>
#include <vector>

namespace Kel {

class TaskScheduler;
class TaskSchedulerRoot;

/// The statistics report: fixed tables for operators. Every line is preceded by `indent` blanks.

/// Prints the queue table, the slip, the legend and the task tables. `deadStats` is null when dead tasks are
/// not wanted; the vectors are sorted in place, by total run time, largest first, equal ones left in order.
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

/// The report of a scheduler as printStats() prints it without addresses and without the history, in slices.
///
/// The tables of the queues are those of the first slice. Each task and each name of a dead one is taken
/// once, with its figures at that moment, the living first: a task that lives throughout has its line, one
/// that is made meanwhile may have one, and one that dies meanwhile is in one table or in both. Every line is
/// one moment's, and figures of different lines need not fit together.
///
/// It holds the scheduler and its root. Requires: a scheduler with a root.
MOX_EXPORT std::unique_ptr<SlicedText> slicedStats(Mox::Ptr<TaskScheduler const> const& scheduler,
                                                   bool includeNeverRunTasks = false,
                                                   bool includeDeadTasks = true);

/// The history of a root as printHistory() prints it, in slices. It is that of the first slice, and its ages
/// count from there, whatever happens meanwhile.
///
/// It holds the root. Requires: a root.
MOX_EXPORT std::unique_ptr<SlicedLines> slicedHistory(Mox::Ptr<TaskSchedulerRoot const> const& root);

} // namespace Kel
