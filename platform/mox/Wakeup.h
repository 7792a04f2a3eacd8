#pragma once

#include <mox/Clock.h>

#include <boost/intrusive/list_hook.hpp>
#include <boost/intrusive/set_hook.hpp>

namespace Mox {

class TurnLoop;
class TimerQueue;

/// One pending call of a turn loop: at the next turn, or at the first turn at which a clock shows a time.
/// TimerEvent, clock alarms and timer wheels are made of it; applications use those.
///
/// Arming and cancelling allocate nothing (a loop keeps one queue a clock, made at its first use); cancelling
/// takes constant time, arming for a time logarithmic time. A wakeup that is destroyed is cancelled. The loop
/// outlives its wakeups.
class MOX_EXPORT Wakeup {
  public:
    /// A null clock is the thread's, whichever that is at the time.
    explicit Wakeup(TurnLoop& loop, Ptr<Clock const> clock = nullptr);
    Wakeup(Wakeup const&) = delete;
    Wakeup& operator=(Wakeup const&) = delete;
    virtual ~Wakeup();

    /// Asks for a call at the next turn, in place of what was asked before. One that stands in the list of
    /// turns keeps its place there: asking twice is asking once.
    void atNextTurn();
    /// The same, to go on with what is due already: runUntil() does not end before that.
    void goOnAtNextTurn();
    /// Asks for a call once the clock shows the time; endOfTime cancels. Requires: not a NaN.
    void at(Seconds time);
    /// The same, the given seconds after now; as short as can be when that is not positive.
    void in(Seconds delay);
    void cancel();

    bool pending() const;
    /// Turns that begin with the same wakeup need not leave its call: whether the call is its loop's, and
    /// nobody has asked yet; and whether the next turn would come at once and begin with this wakeup. It has
    /// begun then, and what the caller does in place of another `onWakeup()` is its work.
    bool isCalled();
    bool takesNextTurn();

    /// The clock that `at` and `in` go by.
    Clock const& clock();

  private:
    friend class TurnLoop;
    friend class TimerQueue;
    using AutoUnlink = boost::intrusive::link_mode<boost::intrusive::auto_unlink>;
    using TurnHook = boost::intrusive::list_member_hook<AutoUnlink>;
    using TimerHook = boost::intrusive::set_member_hook<AutoUnlink>;

    virtual void onWakeup() = 0;

    void atNextTurnInstead();
    bool goesOn() const { return turnHook_.is_linked() && goesOnFrom_ == askedInTurn_; }
    TimerQueue& queue();

    TurnLoop& loop_;
    Ptr<Clock const> const clock_;
    TimerQueue* queue_ = nullptr;
    TurnHook turnHook_;
    TimerHook timerHook_;
    Seconds due_ = endOfTime;
    U64 askedInTurn_ = 0;      // the loop's turn in which the next one was asked for
    U64 goesOnFrom_ = ~U64{0}; // the same, where that was to go on
};

} // namespace Mox

#include <mox/TurnLoop.h> // what is inline above is defined there
