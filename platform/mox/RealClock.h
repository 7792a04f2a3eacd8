#pragma once

#include <mox/Clock.h>

namespace Mox {

/// The steady clock in seconds: monotonic, so that a step of the wall clock moves no timer.
class MOX_EXPORT RealClock : public Clock {
  public:
    static Ptr<RealClock> RealClockIs();

    Seconds now() const override;
    bool isReal() const override { return true; }

    Type const* fwkType() const override;
    static Type const& type();

  private:
    RealClock() = default;
};

} // namespace Mox
