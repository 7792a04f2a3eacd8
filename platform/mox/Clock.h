#pragma once

#include <mox/ReactorList.h>
#include <mox/Seconds.h>

#include <memory>

namespace Mox {

class ActivityManager;

/// A source of framework time. The thread's activity manager names the clock that timers follow; derive from
/// this class for another one.
///
/// Reactors ask a clock for alarms (`timeMinIs`); the turns of the thread's activity manager deliver them.
class MOX_EXPORT Clock : public PtrInterface {
  public:
    class NotifieeConst;
    using Notifiee = NonConstNotifieeOf<Clock, NotifieeConst>;

    virtual Seconds now() const = 0;

    /// True when the clock goes on by itself, a second a second, so that a loop can sleep until it shows a
    /// time.
    virtual bool isReal() const = 0;

    /// A loop has nothing to do before the given time. Returns true when the clock has jumped there.
    virtual bool idleUntil(Seconds time) const;

    Type const* fwkType() const override;
    static Type const& type();

    /// Null for its reactors: a clock calls them one by one and keeps no list.
    ReactorChain* moxReactors() const { return nullptr; }
};

/// A reactor with one alarm on a clock.
///
/// `timeMinIs(t)` asks for exactly one `onTime()`, at the first turn at which the clock shows t or later;
/// asking again replaces, endOfTime disarms. While `onTime()` runs, the alarm is already disarmed and may be
/// armed again. An alarm that comes due while the reactor is muted is spent.
class MOX_EXPORT Clock::NotifieeConst : public NotifieeOf<Clock> {
  public:
    NotifieeConst();
    ~NotifieeConst() override;

    /// Requires: not a NaN; attached to a clock, unless t is endOfTime.
    void timeMinIs(Seconds time);
    Seconds timeMin() const { return timeMin_; }

    virtual void onTime() {}

    void handleNotification(U32 notification) override;
    static constexpr auto callback(U32) { return &NotifieeConst::onTime; }

  protected:
    void handleNotifier() override;

  private:
    class Alarm;

    Seconds timeMin_ = endOfTime;
    std::unique_ptr<Alarm> alarm_; // made at the first arming, on the loop of the thread
};

} // namespace Mox
