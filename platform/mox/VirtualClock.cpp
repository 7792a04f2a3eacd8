#define MOX_SOURCE_NAME "VirtualClock"
#include <mox/VirtualClock.h>

#include <mox/Assert.h>
#include <mox/Type.h>

#include <algorithm>
#include <cmath>

namespace Mox {

Ptr<VirtualClock> VirtualClock::VirtualClockIs() {
    Ptr<VirtualClock> clock = new VirtualClock;
    clock->hasNotificationActiveIs(true);
    return clock;
}

MOX_DEFINE_TYPE(VirtualClock, "Mox::VirtualClock", &Clock::type())

void VirtualClock::nowIs(Seconds time) {
    MOX_ASSERT_AS("std::isfinite( time )", std::isfinite(time));
    MOX_ASSERT_AS("time >= now_", time >= now_);
    now_ = time;
}

/// A time that has passed does not turn the clock back, and an infinite one is no time to go to.
bool VirtualClock::idleUntil(Seconds time) const {
    if (!autoAdvance_ || !std::isfinite(time))
        return false;
    now_ = std::max(now_, time);
    return true;
}

} // namespace Mox
