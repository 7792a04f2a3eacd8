#pragma once

#include <kel/EventLoop.h>
#include <kel/TimerWheel.h>

namespace Kel {

/// A timer wheel that an event loop turns, instead of the loop of the activity manager.
class MOX_EXPORT EventLoopTimerWheel : public TimerWheel {
  public:
    /// As TimerWheelIs, on the loop given.
    static Mox::Ptr<TimerWheel> EventLoopTimerWheelIs(Mox::Ptr<Mox::Activity> const& activity,
                                                      Mox::Ptr<Mox::Clock const> const& clock,
                                                      Mox::U32 tickMsec, Mox::U32 ticks, bool movesLazily,
                                                      Mox::U32 buckets, Mox::Ptr<EventLoop> const& evLoop);

    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  private:
    using TimerWheel::TimerWheel;
};

} // namespace Kel
