#pragma once

#include <mox/ActivityManager.h>
#include <mox/VirtualClock.h>
#include <support/Names.h>

#include <boost/noncopyable.hpp>

namespace TestSupport {

/// Installs a virtual clock in the thread's activity manager while it lives.
class VirtualTime : boost::noncopyable {
  public:
    explicit VirtualTime(bool autoAdvance = false) {
        clock->autoAdvanceIs(autoAdvance);
        manager->config()->clockIs(clock);
    }
    ~VirtualTime() { manager->config()->clockIs(nullptr); }

    Ptr<ActivityManager> const manager = activityManager();
    Ptr<VirtualClock> const clock = VirtualClock::VirtualClockIs();
};

} // namespace TestSupport
