#pragma once

#include <mox/Clock.h>

namespace Mox {

/// A clock for tests: starts at 0 and stands still until it is moved.
///
/// With `autoAdvance` a loop that has nothing due moves it to the earliest due time, so that a day of timers
/// runs in milliseconds, in the same order every time. Install it in the activity manager before the first
/// root. With a root on the loop something is always pending (the history is trimmed within ten seconds of
/// each idle moment), so end such a run with `runUntil(t)`; `run()` would go on for ever.
class MOX_EXPORT VirtualClock : public Clock {
  public:
    static Ptr<VirtualClock> VirtualClockIs();

    Seconds now() const override { return now_; }
    /// Requires: finite ("std::isfinite( time )"), and not before now ("time >= now_").
    void nowIs(Seconds time);
    void nowInc(Seconds duration) { nowIs(now_ + duration); }

    bool autoAdvance() const { return autoAdvance_; }
    void autoAdvanceIs(bool autoAdvance) { autoAdvance_ = autoAdvance; }

    bool isReal() const override { return false; }
    bool idleUntil(Seconds time) const override;

    Type const* fwkType() const override;
    static Type const& type();

  private:
    VirtualClock() = default;

    mutable Seconds now_ = 0.0; // an idle loop, which knows clocks as const, moves it too
    bool autoAdvance_ = false;
};

} // namespace Mox
