#pragma once

#include "Engine.h"

#include <task/PeriodicTask.h>

namespace KelKv {

/// Gives memory that was freed back to the system, within seconds of a rush's end: the allocator keeps small
/// pieces for the next one, and of a gigabyte that clients had under way most would stay for good.
///
/// It looks once a second. A trim cannot be cut, and takes some tens of milliseconds for hundreds of
/// megabytes: so there is one only when a good part of what is in memory was freed since the last, some
/// seconds later at the earliest, and at a moment when nobody else waits for the thread, or when there was
/// none for long.
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
    Mox::U64 released() const;

    Engine const& engine_;
    Mox::Ptr<Kel::PeriodicTask> const task_;
    Mox::U64 releasedBefore_ = 0; // until the last trim
    bool wasAmidstWork_ = false;  // the last trim
    Mox::SteadyClock::TimePoint last_ = Mox::SteadyClock::now();
};

} // namespace KelKv
