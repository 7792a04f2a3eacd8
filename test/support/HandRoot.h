#pragma once

#include <kel/TimerWheel.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <support/ManualClock.h>
#include <support/Mortal.h>
#include <support/Names.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace TestSupport {

inline Seconds secondsOf(ManualClock::Duration duration) { return toSeconds(Nanoseconds(duration.count())); }

/// A root that its test runs by hand: requests for a run are only counted. Its timer wheel follows the
/// thread's clock; it does not trim its history unless told to.
class HandRoot : public TaskSchedulerRoot {
  public:
    static Ptr<HandRoot> HandRootIs(String8 const& name = "root") {
        Ptr<HandRoot> root = new HandRoot(name);
        root->stepsAreOwn(); // the library's roads, that is
        root->hasNotificationActiveIs(true);
        return root;
    }

    void requestSchedulerRun() override { ++requests_; }
    /// The requests since the last call.
    U32 takeRequests() { return std::exchange(requests_, 0); }

    /// Passes until one finds nothing to run; returns how many tasks ran.
    U32 runUntilIdle() {
        U32 passes = 0;
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
    explicit HandRoot(String8 const& name) : TaskSchedulerRoot(name) {
        trimHistoryEnabledIs(false);
        timerWheelIs(TimerWheel::TimerWheelIs(nullptr, nullptr, timerWheelTickInMsec(), 8640000, true, 1024));
    }

    U32 requests_ = 0;
};

/// A scheduler below a root, run by hand.
class HandScheduler : public TaskScheduler {
  public:
    using TaskScheduler::TaskScheduler;
    void requestSchedulerRun() override {
        if (atRequest)
            atRequest();
    }

    std::function<void()> atRequest;
};

/// A root run by hand, with both clocks in hand.
struct HandTree {
    Ptr<Task> task(String8 const& name = "t", TaskPriority priority = TaskPriority::normal) {
        return Mortal::MortalIs(root, priority, name);
    }
    Ptr<TimerTask> timerTask(String8 const& name = "t", TaskPriority priority = TaskPriority::normal) {
        return TimerTask::TimerTaskIs(root, priority, name);
    }
    /// Moves the clock of the timers, and lets fire what is due.
    void timePasses(Seconds seconds) {
        timers.clock->nowInc(seconds);
        timers.manager->runOnce();
    }

    ManualClock steady;
    VirtualTime timers;
    Ptr<HandRoot> root = HandRoot::HandRootIs();
};

/// A fixture that adds nothing to it.
struct HandTreeTest : testing::Test, HandTree {};

} // namespace TestSupport
