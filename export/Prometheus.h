#pragma once

#include <kel/SlicedText.h>
#include <mox/Export.h>
#include <mox/Ptr.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <iosfwd>
#include <memory>

namespace Kel {

/// The task names that writePrometheus() tells apart, unless told otherwise.
constexpr std::size_t prometheusTaskNamesMax = 200;

/// Writes what the schedulers of a tree measured, in Prometheus' text format, version 0.0.4.
///
/// Tasks of one name, scheduler and priority are one series, the dead among them, so that its counters go on
/// when a task dies (of tasks that share a name but not the priority, the dead have that of the first).
/// `taskNamesMax` such names are told apart, over all schedulers: those with the most run
/// time. The others, and any of that name, are summed under the name "other", for each scheduler and
/// priority. A name that comes in or falls out looks like a counter's reset, also of "other": rates of
/// "other" mean something only while the names are fewer than that. So does resetStats().
///
/// Runs and violations wrap after 2^32, also of several tasks together: to a reader a wrap is a reset to
/// about zero. Latencies are not summed: of several tasks the greatest counts. The last latency is that of
/// the living. Bytes that are not UTF-8 become U+FFFD.
///
/// Every task is visited: with a million of them that takes a while.
///
/// Thread rule: that of the tree. Nothing of the tree changes, and none of it is looked at any more when the
/// sink gets the first byte.
///
/// Throws std::ios_base::failure when the sink does not take everything. Requires: a root.
MOX_EXPORT void writePrometheus(Mox::Ptr<TaskSchedulerRoot const> const& root, std::ostream& sink,
                                std::size_t taskNamesMax = prometheusTaskNamesMax);

/// The same in slices. Each task and each name of a dead one is visited once, with its figures at that
/// moment, and so is each scheduler: what changes meanwhile is in or comes with the next reading, and as each
/// task counts once, living or dead, no counter goes back for it. A scheduler that is made meanwhile may be
/// missing; of one that goes, what was visited is in.
///
/// It holds the root. Requires: a root.
MOX_EXPORT std::unique_ptr<SlicedText> slicedPrometheus(Mox::Ptr<TaskSchedulerRoot const> const& root,
                                                        std::size_t taskNamesMax = prometheusTaskNamesMax);

} // namespace Kel
