#pragma once

#include <kel/TimerWheel.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <support/ManualClock.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace TestSupport {

/// A root that its test runs by hand: requests for a run are only counted. Its timer wheel follows the
/// thread's clock; it does not trim its history unless told to.
class HandRoot : public Kel::TaskSchedulerRoot {
  public:
    static Mox::Ptr<HandRoot> HandRootIs(Mox::String8 const& name = "root") {
        Mox::Ptr<HandRoot> root = new HandRoot(name);
        root->hasNotificationActiveIs(true);
        return root;
    }

    void requestSchedulerRun() override { ++requests_; }
    /// The requests since the last call.
    Mox::U32 takeRequests() { return std::exchange(requests_, 0); }

    /// Passes until one finds nothing to run; returns how many tasks ran.
    Mox::U32 runUntilIdle() {
        Mox::U32 passes = 0;
        for (; schedulerHasRunnableTasks(); ++passes)
            handleSchedulerRun();
        return passes == 0 ? 0 : passes - 1;
    }

    /// The events so far, oldest first; they are cleared.
    std::vector<std::string> takeHistory() {
        std::vector<std::string> events;
        for (auto const& event : history())
            events.insert(events.begin(), event.display());
        clearHistory();
        return events;
    }

  private:
    explicit HandRoot(Mox::String8 const& name) : TaskSchedulerRoot(name) {
        trimHistoryEnabledIs(false);
        timerWheelIs(
            Kel::TimerWheel::TimerWheelIs(nullptr, nullptr, timerWheelTickInMsec(), 8640000, true, 1024));
    }

    Mox::U32 requests_ = 0;
};

/// A scheduler below a root, run by hand.
class HandScheduler : public Kel::TaskScheduler {
  public:
    using TaskScheduler::TaskScheduler;
    void requestSchedulerRun() override {
        ++requests;
        if (atRequest)
            atRequest();
    }

    Mox::U32 requests = 0;
    std::function<void()> atRequest;
};

/// A root run by hand, with both clocks in hand.
struct HandTree {
    Mox::Ptr<Kel::Task> task(Mox::String8 const& name = "t",
                             Kel::TaskPriority priority = Kel::TaskPriority::normal) {
        return Kel::Task::TaskIs(root, priority, name);
    }
    Mox::Ptr<Kel::TimerTask> timerTask(Mox::String8 const& name = "t",
                                       Kel::TaskPriority priority = Kel::TaskPriority::normal) {
        return Kel::TimerTask::TimerTaskIs(root, priority, name);
    }
    /// Moves the clock of the timers, and lets fire what is due.
    void timePasses(Mox::Seconds seconds) {
        timers.clock->nowInc(seconds);
        timers.manager->runOnce();
    }

    ManualClock steady;
    VirtualTime timers;
    Mox::Ptr<HandRoot> root = HandRoot::HandRootIs();
};

/// A fixture that adds nothing to it.
struct HandTreeTest : testing::Test, HandTree {};

} // namespace TestSupport
