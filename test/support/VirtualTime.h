#pragma once

#include <mox/ActivityManager.h>
#include <mox/VirtualClock.h>

namespace TestSupport {

/// Installs a virtual clock in the thread's activity manager while it lives.
class VirtualTime {
  public:
    explicit VirtualTime(bool autoAdvance = false) {
        clock->autoAdvanceIs(autoAdvance);
        manager->config()->clockIs(clock);
    }
    ~VirtualTime() { manager->config()->clockIs(nullptr); }
    VirtualTime(VirtualTime const&) = delete;
    VirtualTime& operator=(VirtualTime const&) = delete;

    Mox::Ptr<Mox::ActivityManager> const manager = Mox::activityManager();
    Mox::Ptr<Mox::VirtualClock> const clock = Mox::VirtualClock::VirtualClockIs();
};

} // namespace TestSupport
