#define MOX_SOURCE_NAME "Wakeup"
#include <mox/Wakeup.h>

#include <mox/Assert.h>
#include <mox/TurnLoop.h>
#include <mox/detail/TimerQueue.h>

#include <cmath>

namespace Mox {

Wakeup::Wakeup(TurnLoop& loop, Ptr<Clock const> clock) : loop_(loop), clock_(std::move(clock)) {}

Wakeup::~Wakeup() { cancel(); }

/// Looked up at the first time that is asked for: a wakeup that only knows next turns, such as a scheduler's,
/// makes the loop no queue.
TimerQueue& Wakeup::queue() {
    if (!queue_)
        queue_ = &loop_.queueOf(clock_);
    return *queue_;
}

void Wakeup::goOnAtNextTurn() {
    atNextTurn();
    goesOnFrom_ = askedInTurn_;
}

/// In place of a time. Not inline, so that the frequent case keeps no registers for this one.
[[gnu::noinline]] void Wakeup::atNextTurnInstead() {
    cancel();
    loop_.nextTurn(*this);
}

/// A time that has come is a call at the next turn, in the order of asking with all others. Clocks start at
/// 0, so that asking for that time, as run requests do, needs no reading.
void Wakeup::at(Seconds time) {
    MOX_ASSERT_AS("!std::isnan( time )", !std::isnan(time));
    if (time <= 0.0 || (time != endOfTime && time <= queue().clock().now()))
        return atNextTurn();
    cancel();
    if (time == endOfTime)
        return;
    due_ = time;
    queue().insert(*this);
    loop_.pendingChanged();
}

void Wakeup::in(Seconds delay) {
    MOX_ASSERT_AS("!std::isnan( delay )", !std::isnan(delay));
    if (delay <= 0.0)
        return atNextTurn();
    cancel();
    if (delay == endOfTime)
        return;
    due_ = queue().clock().now() + delay;
    queue().insert(*this);
    loop_.pendingChanged();
}

/// A loop inside an application's io_context has left a wait there for the earliest timer, so it has to know
/// of a timer that goes; a call at the next turn has left nothing that would last.
void Wakeup::cancel() {
    turnHook_.unlink();
    if (timerHook_.is_linked()) {
        timerHook_.unlink();
        loop_.pendingChanged();
    }
}

Clock const& Wakeup::clock() { return queue().clock(); }

bool Wakeup::pending() const { return turnHook_.is_linked() || timerHook_.is_linked(); }

} // namespace Mox
