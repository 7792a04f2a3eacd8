#include <mox/RealClock.h>

#include <mox/SteadyClock.h>
#include <mox/Type.h>

namespace Mox {

Ptr<RealClock> RealClock::RealClockIs() {
    Ptr<RealClock> clock = new RealClock;
    clock->hasNotificationActiveIs(true);
    return clock;
}

MOX_DEFINE_TYPE(RealClock, "Mox::RealClock", &Clock::type())

Seconds RealClock::now() const { return toSeconds(SteadyClock::now().time_since_epoch()); }

} // namespace Mox
