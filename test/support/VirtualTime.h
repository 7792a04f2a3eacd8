#pragma once

#include <mox/ActivityManager.h>
#include <mox/VirtualClock.h>
#include <support/Names.h>

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

    Ptr<ActivityManager> const manager = activityManager();
    Ptr<VirtualClock> const clock = VirtualClock::VirtualClockIs();
};

} // namespace TestSupport
