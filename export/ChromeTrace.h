#pragma once

#include <kel/SlicedText.h>
#include <mox/Export.h>
#include <mox/Ptr.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <iosfwd>
#include <memory>

namespace Kel {

/// Writes the root's history in the Chrome trace event format, for ui.perfetto.dev and its like.
///
/// Each scheduler and priority that has tasks in the history is a lane, the root's first; schedulers of one
/// name share theirs. A run is a slice with its latency and its percentage of the quantum; violations,
/// suspensions and timers are instants, a run queue's length is a counter. Times are microseconds since the
/// oldest event.
///
/// The history does not tell everything; what is made up for it:
/// - A run is measured against the quantum that its task has now, or had at its death: what was found with
///   that says "about".
/// - When a task died in its run queue is not known: it leaves the counter when a task that was scheduled
///   behind it runs, or at the end.
/// - A run whose beginning is not in the history begins with the trace, one that goes on ends now; their
///   percentages are left out.
/// - Bytes that are not UTF-8 become U+FFFD.
///
/// Thread rule: that of the tree. Nothing of the tree changes, and none of it is looked at any more when the
/// sink gets the first byte: a trace takes up to two megabytes meanwhile.
///
/// Throws std::ios_base::failure when the sink does not take everything. Requires: a root.
MOX_EXPORT void writeChromeTrace(Mox::Ptr<TaskSchedulerRoot const> const& root, std::ostream& sink);

/// The same in slices. All of it is as it was in the first slice, which copies the history.
///
/// It holds the root. Requires: a root.
MOX_EXPORT std::unique_ptr<SlicedText> slicedChromeTrace(Mox::Ptr<TaskSchedulerRoot const> const& root);

} // namespace Kel
