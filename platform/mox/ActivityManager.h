#pragma once

#include <mox/Clock.h>

#include <memory>

namespace Mox {

class TurnLoop;

/// A thread's own loop and clock: delivers the alarms of clocks, and names the clock that Mox::now() reads.
///
/// One a thread, made at its first use and kept alive by whatever uses it, so that what stands on it may
/// outlive the thread's locals.
class MOX_EXPORT ActivityManager : public PtrInterface {
  public:
    /// What the application may set before it starts.
    class MOX_EXPORT Config : public PtrInterface {
      public:
        Ptr<Clock> const& clock() const { return clock_; }
        /// Timers that are armed keep their times; so install a clock before the first of them. Null restores
        /// the real clock.
        void clockIs(Ptr<Clock> const& clock);

      private:
        friend class ActivityManager;
        Config();
        Ptr<Clock> clock_;
    };

    ~ActivityManager() override;

    Ptr<Config> const& config() const { return config_; }

    /// Turns until `stop()` or until nothing is pending.
    void run();
    /// Turns until the clock has reached the time, in seconds, and what was due by then is done.
    void runUntil(Seconds time);
    /// One turn without waiting; returns the number of callbacks made.
    U64 runOnce();
    void stop();
    /// Seconds from now until something is due, or handlers of descriptors are left for the next turn: 0 when
    /// something is, endOfTime when nothing is pending. An outside loop waits that long and calls
    /// `runOnce()`.
    Seconds nextDue() const;

    TurnLoop& turnLoop() const { return *turnLoop_; }

    Type const* fwkType() const override;
    static Type const& type();

  private:
    friend MOX_EXPORT Ptr<ActivityManager> activityManager();
    friend MOX_EXPORT Clock const& threadClock();
    ActivityManager();

    Ptr<Config> config_;
    std::unique_ptr<TurnLoop> turnLoop_;
};

/// The calling thread's activity manager.
MOX_EXPORT Ptr<ActivityManager> activityManager();

/// The calling thread's clock; the reference is good until another clock is installed. Requires: somebody
/// holds the thread's activity manager, as the thread itself does until its end.
MOX_EXPORT Clock const& threadClock();

} // namespace Mox
