#pragma once

#include <kel/WheelBuckets.h>

#include <mox/Clock.h>
#include <mox/Prefetch.h>
#include <mox/ReactorList.h>
#include <mox/Wakeup.h>

namespace Kel {

/// Many one-shot timers at once: arming, moving and disarming take constant time and allocate nothing.
///
/// A timer is a reactor, `TimerWheel::NotifieeConst`. Time is cut into ticks; a timer fires at the first tick
/// not before its time: never early, and at most one tick late while the loop is free. When the loop comes
/// late, timers fire in the order of their ticks; within one tick the order is unspecified, but the same for
/// the same program.
///
/// A timer that is moved later stays where it is filed and only notes the wish, which is looked at when its
/// old tick comes: moving timers that hardly ever fire, such as timeouts, costs two stores. With nothing
/// armed the wheel makes no wake-ups; otherwise it wakes for what is due, and seldom besides.
///
/// Thread rule: the thread of its loop. Lifetime: counted; attached timers hold it. Re-entrant: an expiry may
/// arm, disarm and destroy timers, let the wheel go, and turn the loop.
class MOX_EXPORT TimerWheel : public Mox::PtrInterface {
  public:
    class NotifieeConst;
    using Notifiee = Mox::NonConstNotifieeOf<TimerWheel, NotifieeConst>;

    /// A wheel on the loop of the thread's activity manager.
    ///
    /// A null activity is the thread's main one, a null clock the thread's. `tickMsec` is the tick in
    /// milliseconds, `ticks` the span that the wheel is meant for, in ticks (longer delays work as well),
    /// `movesLazily` whether a timer moved later stays filed where it is, `buckets` a size that is rounded up
    /// to a power of two. Requires: tickMsec, ticks and buckets are positive.
    static Mox::Ptr<TimerWheel> TimerWheelIs(Mox::Ptr<Mox::Activity> const& activity,
                                             Mox::Ptr<Mox::Clock const> const& clock, Mox::U32 tickMsec,
                                             Mox::U32 ticks, bool movesLazily, Mox::U32 buckets);
    ~TimerWheel() override;

    Mox::U32 tickInMsec() const { return tickMsec_; }
    Mox::U32 ticks() const { return ticks_; }
    Mox::Ptr<Mox::Activity> const& activity() const { return activity_; }
    /// Timers that are armed now.
    Mox::U64 armed() const { return buckets_.size(); }
    /// How often the wheel's loop has called it since it was made: what an idle wheel costs.
    Mox::U64 wakeups() const { return wakeups_; }

    /// Null for its reactors: the wheel calls its timers one by one and keeps no list.
    Mox::ReactorChain* moxReactors() const { return nullptr; }

    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  protected:
    /// The owner keeps the loop alive.
    TimerWheel(Mox::TurnLoop& loop, Mox::Ptr<Mox::PtrInterface> loopOwner,
               Mox::Ptr<Mox::Activity> const& activity, Mox::Ptr<Mox::Clock const> const& clock,
               Mox::U32 tickMsec, Mox::U32 ticks, bool movesLazily, Mox::U32 buckets);

  private:
    class Wake : public Mox::Wakeup {
      public:
        Wake(Mox::TurnLoop& loop, Mox::Ptr<Mox::Clock const> const& clock, TimerWheel& wheel)
            : Wakeup(loop, clock), wheel_(wheel) {}

      private:
        void onWakeup() override { wheel_.poll(); }
        TimerWheel& wheel_;
    };

    Mox::Seconds timeOf(Mox::S64 tick) const { return static_cast<Mox::Seconds>(tick) * tickSeconds_; }
    Mox::S64 tickNotBefore(Mox::Seconds time) const;

    void file(NotifieeConst& timer);
    void unfile(NotifieeConst& timer);
    void lastIsDisarmed();
    void poll();
    bool collect(Mox::Seconds now);
    void fire();
    void requestWake();
    void requestWakeAt(Mox::S64 tick);
    void wakeAtNextTurn();

    // Fixed at construction.
    Mox::Ptr<Mox::PtrInterface> const loopOwner_;
    Mox::Ptr<Mox::Activity> const activity_;
    Mox::Ptr<Mox::Clock const> const clock_;
    Mox::U32 const tickMsec_;
    Mox::U32 const ticks_;
    bool const movesLazily_;
    Mox::Seconds const tickSeconds_;
    Mox::Seconds const ticksPerSecond_;

    WheelBuckets buckets_;
    WheelBuckets::Entries due_; // expired, to be told one by one, so that each can still be disarmed
    Mox::S64 wakeTick_ = WheelBuckets::never;
    bool isCollecting_ = false;
    Mox::U64 wakeups_ = 0;
    Wake wake_;
};

/// A timer of a wheel.
///
/// `timeMinIs(t)` arms exactly one `onTime()` at the absolute framework time t; arming again replaces,
/// endOfTime and another wheel disarm. Within `onTime()` the timer is already disarmed. A timer that expires
/// while it is muted is spent.
class MOX_EXPORT TimerWheel::NotifieeConst : public Mox::NotifieeOf<TimerWheel>, private WheelEntry {
  public:
    NotifieeConst() = default;
    ~NotifieeConst() override;

    /// Requires: not a NaN; attached to a wheel, unless the time is endOfTime.
    ///
    /// Here, since with many timers a processor waits for memory, and for as many of these at once as their
    /// instructions fit into its window.
    void timeMinIs(Mox::Seconds time) {
        if (time == Mox::endOfTime)
            disarm();
        else if (time >= keptFrom_)
            timeMin_ = time;
        else
            file(time);
    }
    Mox::Seconds timeMin() const { return timeMin_; }

    /// Has the caches fetch what arming touches.
    void prefetch() const {
        Mox::prefetch(static_cast<WheelEntry const*>(this));
        Mox::prefetch(&wheel_);
    }

    virtual void onTime() {}

    void handleNotification(Mox::U32 notification) override;
    static constexpr auto callback(Mox::U32) { return &NotifieeConst::onTime; }

  protected:
    /// Disarms, and takes up the new wheel; overrides call it.
    void handleNotifier() override;

  private:
    friend class TimerWheel;

    void file(Mox::Seconds time);
    void disarm();

    // These two, which are all that a move to a later time touches, lie in one line of the cache: together
    // they stand at a multiple of 16 bytes, to which objects are aligned on 64 bits.
    static_assert(sizeof(void*) < 8 || (sizeof(Mox::Reactor) + sizeof(WheelEntry)) % 16 == 0);
    Mox::Seconds timeMin_ = Mox::endOfTime;
    /// From this time on a new one changes nothing in where the timer is filed.
    Mox::Seconds keptFrom_ = Mox::endOfTime;

    TimerWheel* wheel_ = nullptr; // the notifier, beside what the other moves touch
};

inline void TimerWheel::NotifieeConst::disarm() {
    timeMin_ = Mox::endOfTime;
    if (isLinked())
        wheel_->unfile(*this);
}

inline void TimerWheel::unfile(NotifieeConst& timer) {
    buckets_.remove(timer);
    timer.keptFrom_ = Mox::endOfTime;
    if (buckets_.size() == 0) [[unlikely]]
        lastIsDisarmed();
}

} // namespace Kel
