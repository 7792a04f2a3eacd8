#define MOX_SOURCE_NAME "TimerWheel"
#include <kel/TimerWheel.h>

#include <mox/ActivityManager.h>
#include <mox/Assert.h>
#include <mox/Type.h>

#include <cmath>

namespace Kel {

using Mox::S64;
using Mox::Seconds;

namespace {

// Ticks from here on are one far future that never comes: 2^62 is exact as a double, leaves room for counting
// on, and lies 1.4 thousand million years ahead at 10 milliseconds a tick.
constexpr S64 farTick = S64{1} << 62;
static_assert(static_cast<S64>(static_cast<Seconds>(farTick)) == farTick && farTick < WheelBuckets::never);

// How many entries one poll takes out, which is a fraction of a millisecond: a million timers of one tick,
// told or lazily moved, are not to hold the thread. The rest is taken on the next turn.
constexpr Mox::U32 takenPerPoll = 256;

} // namespace

MOX_DEFINE_TYPE(TimerWheel, "Kel::TimerWheel", &Mox::PtrInterface::type())

Mox::Ptr<TimerWheel> TimerWheel::TimerWheelIs(Mox::Ptr<Mox::Activity> const& activity,
                                              Mox::Ptr<Mox::Clock const> const& clock, Mox::U32 tickMsec,
                                              Mox::U32 ticks, bool movesLazily, Mox::U32 buckets) {
    Mox::Ptr<Mox::ActivityManager> const manager = Mox::activityManager();
    Mox::Ptr<TimerWheel> wheel =
        new TimerWheel(manager->turnLoop(), manager, activity, clock, tickMsec, ticks, movesLazily, buckets);
    wheel->hasNotificationActiveIs(true);
    return wheel;
}

TimerWheel::TimerWheel(Mox::TurnLoop& loop, Mox::Ptr<Mox::PtrInterface> loopOwner,
                       Mox::Ptr<Mox::Activity> const& activity, Mox::Ptr<Mox::Clock const> const& clock,
                       Mox::U32 tickMsec, Mox::U32 ticks, bool movesLazily, Mox::U32 buckets)
    : loopOwner_(std::move(loopOwner)), activity_(activity), clock_(clock), tickMsec_(tickMsec),
      ticks_(ticks), movesLazily_(movesLazily), tickSeconds_(tickMsec / 1000.0),
      ticksPerSecond_(1000.0 / tickMsec), buckets_(buckets), wake_(loop, clock, *this) {
    MOX_ASSERT(tickMsec > 0);
    MOX_ASSERT(ticks > 0);
}

TimerWheel::~TimerWheel() = default;

// Ticks and seconds: a tick's time is timeOf(tick), rounding included, and the search below is exact against
// it; so a wake-up asked for at a tick's time finds that tick reached.

inline S64 TimerWheel::tickNotBefore(Seconds time) const {
    constexpr auto far = static_cast<Seconds>(farTick);
    Seconds const exact = std::clamp(time * ticksPerSecond_, -far, far);
    auto tick = static_cast<S64>(exact);
    tick += static_cast<Seconds>(tick) < exact ? 1 : 0;
    while (timeOf(tick) < time && tick < farTick)
        ++tick;
    while (timeOf(tick - 1) >= time && tick > -farTick)
        --tick;
    return tick;
}

/// Moved to a later tick, a lazy timer stays under its old one, which is never too late to look at it. The
/// loop is asked only for a tick before the one asked for, since nothing is filed under an earlier one; while
/// the wheel collects, it asks once at the end instead.
inline void TimerWheel::file(NotifieeConst& timer) {
    S64 const tick = tickNotBefore(timer.timeMin_);
    if (timer.isLinked()) {
        if (movesLazily_ && tick >= timer.tick())
            return;
        buckets_.remove(timer);
    }
    buckets_.insert(timer, tick);
    timer.keptFrom_ = movesLazily_ ? timeOf(tick) : Mox::endOfTime;
    if (tick < wakeTick_ && !isCollecting_)
        requestWakeAt(tick);
}

/// A wake-up for a timer that is disarmed now is left as it is: it costs one look, where finding the next
/// tick costs a scan each time. The last timer takes it along, so that a wheel with nothing armed lets a loop
/// end.
void TimerWheel::lastIsDisarmed() {
    wakeTick_ = WheelBuckets::never;
    wake_.cancel();
}

void TimerWheel::requestWake() {
    requestWakeAt(buckets_.size() == 0 ? WheelBuckets::never : buckets_.next());
}

/// Ticks of the far future are waited for by nobody: no clock that can jump shall go there.
void TimerWheel::requestWakeAt(S64 tick) {
    wakeTick_ = tick;
    if (tick >= farTick)
        wake_.cancel();
    else
        wake_.at(timeOf(tick));
}

/// The wheel asks for its next call before it tells anybody. An expiry may turn the loop, and from there the
/// timers that are still to be told, or to be collected, have to be reached: so with more than one due the
/// next turn is asked for, and only once all are told the tick that is really next. With one due, which is
/// the usual case, that tick is known at once and asked for once. The reference is held because an expiry may
/// let the last timer, and with it the wheel, go.
void TimerWheel::poll() {
    Mox::Ptr<TimerWheel> const self = this;
    ++wakeups_;
    isCollecting_ = true;
    bool const through = collect(wake_.clock().now());
    isCollecting_ = false;
    bool const several = !due_.empty() && std::next(due_.begin()) != due_.end();
    if (several || !through)
        wakeAtNextTurn();
    else
        requestWake();
    fire();
    if (several && through)
        requestWake();
}

/// No tick is earlier than the one noted, so that arming in the meantime does not put a time in place of the
/// turn.
void TimerWheel::wakeAtNextTurn() {
    wakeTick_ = -WheelBuckets::never;
    wake_.goOnAtNextTurn();
}

/// Moves what is due to the due list, and on to their new ticks what was moved later. False when it stopped
/// before it was through.
///
/// It goes tick by tick, which is the order of expiry when the loop comes late. A timer that was moved later
/// is told under its own tick, even if that is due as well: told where it is found, it would overtake others.
bool TimerWheel::collect(Seconds now) {
    WheelBuckets::Entries taken;
    Mox::U32 count = 0;
    while (buckets_.size() > 0 && buckets_.next() < farTick && timeOf(buckets_.next()) <= now) {
        if (count >= takenPerPoll)
            return false;
        Seconds const tickTime = timeOf(buckets_.next());
        count += buckets_.take(taken, takenPerPoll - count);
        while (!taken.empty()) {
            NotifieeConst& timer = static_cast<NotifieeConst&>(taken.front());
            timer.keptFrom_ = Mox::endOfTime;
            if (timer.timeMin_ <= tickTime)
                due_.splice(due_.end(), taken, taken.begin());
            else
                file(timer);
        }
    }
    return true;
}

/// One by one from a list of the wheel's own, and each disarmed before it is told: an expiry may arm itself
/// again, and disarm, destroy or move those behind it.
void TimerWheel::fire() {
    while (!due_.empty()) {
        NotifieeConst& timer = static_cast<NotifieeConst&>(buckets_.removeFront(due_));
        timer.timeMin_ = Mox::endOfTime;
        if (hasNotificationActive() && timer.isTold())
            Mox::ReactorList<NotifieeConst>::notifyOne<0>(&timer);
    }
}

// Timers

TimerWheel::NotifieeConst::~NotifieeConst() { timeMinIs(Mox::endOfTime); }

/// The base holds the former wheel until this has run, so the timer can still leave it.
void TimerWheel::NotifieeConst::handleNotifier() {
    timeMinIs(Mox::endOfTime);
    wheel_ = const_cast<TimerWheel*>(static_cast<TimerWheel const*>(rawNotifier()));
}

void TimerWheel::NotifieeConst::file(Seconds time) {
    MOX_ASSERT_AS("!std::isnan( time )", !std::isnan(time));
    timeMin_ = time;
    MOX_ASSERT_AS("notifier()", wheel_);
    wheel_->file(*this);
}

void TimerWheel::NotifieeConst::handleNotification(Mox::U32 notification) {
    if (notification == 0)
        onTime();
}

} // namespace Kel
