#pragma once

#include "Engine.h"

#include <task/PeriodicTask.h>

namespace KelKv {

/// Gives memory that was freed back to the system, within seconds of a rush's end: the allocator keeps small
/// pieces for the next one, and of a gigabyte that clients had under way most would stay for good.
///
/// It looks once a second. A trim cannot be cut, and takes some tens of milliseconds for hundreds of
/// megabytes: so there is one only when much was freed since the last, some seconds later at the earliest,
/// and at a moment when nobody else waits for the thread.
///
/// With other C libraries than glibc it does nothing.
///
/// Lifetime: the engine outlives it.
class HeapTrim {
  public:
    explicit HeapTrim(Engine const& engine);
    ~HeapTrim();
    HeapTrim(HeapTrim const&) = delete;
    HeapTrim& operator=(HeapTrim const&) = delete;

  private:
    void look();
    bool isIdle() const;
    std::size_t pieces() const;

    Engine const& engine_;
    Mox::Ptr<Kel::PeriodicTask> const task_;
    std::size_t most_ = 0; // pieces, since the last trim
    Mox::SteadyClock::TimePoint next_{};
};

} // namespace KelKv
