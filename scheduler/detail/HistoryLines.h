#pragma once

#include <kel/detail/Slices.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <vector>

namespace Kel {

/// The lines in which a root's history is printed: a title, the events, the newest first, an empty line.
class HistoryLines : public LinesInSlices<> {
  public:
    explicit HistoryLines(Mox::Ptr<TaskSchedulerRoot const> root) : root_(std::move(root)) {}

  private:
    Slices make() override;

    Mox::Ptr<TaskSchedulerRoot const> const root_;
    std::vector<TaskSchedulerHistory::Event> events_; // what is left to be told, the oldest first
};

} // namespace Kel
