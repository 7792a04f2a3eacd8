#pragma once

#include <mox/Clock.h>
#include <mox/Wakeup.h>

#include <boost/intrusive/set.hpp>

namespace Mox {

/// The wakeups of one loop that wait for one clock, in the order in which they are due; those due at the same
/// time stand in the order in which they were asked for.
class TimerQueue {
  public:
    /// A null clock is the thread's, whichever that is at the time.
    explicit TimerQueue(Ptr<Clock const> clock) : clock_(std::move(clock)) {}

    bool isOf(Clock const* clock) const { return clock_.ptr() == clock; }
    Clock const& clock() const;

    bool empty() const { return timers_.empty(); }
    /// Requires: not empty.
    Seconds earliest() const { return timers_.begin()->due_; }

    void insert(Wakeup& wakeup) { timers_.insert(wakeup); }

    /// Takes out the earliest wakeup if it is due by that time; null if it is not.
    Wakeup* takeDue(Seconds now) {
        if (empty() || earliest() > now)
            return nullptr;
        Wakeup& first = *timers_.begin();
        timers_.erase(timers_.begin());
        return &first;
    }

  private:
    struct Earlier {
        bool operator()(Wakeup const& a, Wakeup const& b) const { return a.due_ < b.due_; }
    };

    Ptr<Clock const> const clock_;
    boost::intrusive::multiset<
        Wakeup, boost::intrusive::member_hook<Wakeup, Wakeup::TimerHook, &Wakeup::timerHook_>,
        boost::intrusive::compare<Earlier>, boost::intrusive::constant_time_size<false>>
        timers_;
};

} // namespace Mox
