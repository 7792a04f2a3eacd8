#pragma once

#include <kel/EventLoop.h>

#include <mox/ReactorList.h>
#include <mox/TurnLoop.h>

namespace Kel {

/// A one-shot timer on an event loop, which tells its reactors by `onClock()`.
///
/// Arming takes logarithmic time, arming for the next turn constant time; for many timers use a TimerWheel.
///
/// Thread rule: the loop's thread. Lifetime: counted; it holds its loop, and is disarmed when it goes.
class MOX_EXPORT TimerEvent : public Mox::PtrInterface {
  public:
    class NotifieeConst;
    using Notifiee = Mox::NonConstNotifieeOf<TimerEvent, NotifieeConst>;

    static Mox::Ptr<TimerEvent> TimerEventIs(Mox::Ptr<EventLoop> const& evLoop);

    /// Fires once, the given seconds after now: at the next turn when that is not positive; endOfTime
    /// disarms. Arming again replaces. Requires: not a NaN.
    void timeMinIs(Mox::Seconds delay) {
        if (delay <= 0.0)
            wakeup_.atNextTurn();
        else
            wakeup_.in(delay);
    }
    bool armed() const { return wakeup_.pending(); }
    /// For a reactor that goes on with the next firing where it is: whether the event fires, and nobody has
    /// asked yet; and whether it was armed anew, would fire at once and tell nobody else. It has fired then.
    bool fires() { return wakeup_.isCalled(); }
    bool firesAgainFor(NotifieeConst const& reactor) {
        return hasNotificationActive() && reactors_.isOnly<0>(&reactor) && wakeup_.takesNextTurn();
    }

    Mox::ReactorChain* moxReactors() const { return &reactors_; }

    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  private:
    class Expiry : public Mox::Wakeup {
      public:
        explicit Expiry(TimerEvent& event);

      private:
        void onWakeup() override;
        TimerEvent& event_;
    };

    explicit TimerEvent(Mox::Ptr<EventLoop> const& evLoop);

    Mox::Ptr<EventLoop> const evLoop_;
    Expiry wakeup_;
    mutable Mox::ReactorList<NotifieeConst> reactors_;
};

/// A reactor on a timer event.
class MOX_EXPORT TimerEvent::NotifieeConst : public Mox::NotifieeOf<TimerEvent> {
  public:
    virtual void onClock() {}

    void handleNotification(Mox::U32 notification) override;
    static constexpr auto callback(Mox::U32) { return &NotifieeConst::onClock; }
};

} // namespace Kel
