#include <kel/EventLoopTimerWheel.h>

#include <mox/Type.h>

namespace Kel {

MOX_DEFINE_TYPE(EventLoopTimerWheel, "Kel::EventLoopTimerWheel", &TimerWheel::type())

/// The wheel holds the event loop, since the turn loop that calls it is a part of that.
Mox::Ptr<TimerWheel> EventLoopTimerWheel::EventLoopTimerWheelIs(Mox::Ptr<Mox::Activity> const& activity,
                                                                Mox::Ptr<Mox::Clock const> const& clock,
                                                                Mox::U32 tickMsec, Mox::U32 ticks,
                                                                bool movesLazily, Mox::U32 buckets,
                                                                Mox::Ptr<EventLoop> const& evLoop) {
    Mox::Ptr<TimerWheel> wheel = new EventLoopTimerWheel(evLoop->turnLoop(), evLoop, activity, clock,
                                                         tickMsec, ticks, movesLazily, buckets);
    wheel->hasNotificationActiveIs(true);
    return wheel;
}

} // namespace Kel
