#include <kel/EventLoopTimerWheel.h>

#include <support/Calls.h>
#include <support/Random.h>
#include <support/TraceLog.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace TestSupport;
using Timer = TimerCall<TimerWheel::NotifieeConst>;

constexpr Seconds tickSeconds = 0.01;

constexpr S64 farTick = S64{1} << 62; // never comes, or is long past

Seconds timeOf(S64 tick) { return static_cast<Seconds>(tick) * tickSeconds; }

/// The first tick not before that time, found the slow way.
S64 tickOf(Seconds time) {
    if (std::abs(time) > 1e15)
        return time < 0 ? -farTick : farTick;
    S64 tick = std::llround(time / tickSeconds) - 2;
    while (timeOf(tick) < time)
        ++tick;
    return tick;
}

/// A random program that arms, moves, disarms, mutes, destroys and polls timers, inside expiries too, which
/// also throw, against a set sorted by ticks. The wheel has a loop and a clock of its own.
class WheelProgram {
  public:
    WheelProgram(bool movesLazily, U32 buckets, Seconds start)
        : wheel_(EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, clock_, 10, 8640000, movesLazily,
                                                            buckets, loop_)) {
        clock_->nowIs(start);
        for (Slot& slot : slots_)
            renew(slot);
    }
    void step() {
        if (random_.oneIn(3))
            turn();
        else
            change();
        ASSERT_EQ(model_.size(), wheel_->armed());
        Seconds const wait = std::max(0.0, timeOf(nextTick()) - clock_->now());
        ASSERT_TRUE(nextTick() == farTick || loop_->nextDue() <= wait) << "wakes late";
    }
    std::size_t fired() const { return fired_; }

  private:
    struct Slot {
        Ptr<Timer> timer;
        Seconds at = endOfTime;
        std::size_t armedInTurn = 0;
    };
    S64 nextTick() const { return model_.empty() ? farTick : model_.begin()->first; }
    bool isHeard(Slot const& slot) const {
        return wheel_->hasNotificationActive() && slot.timer->hasNotificationActive() &&
               !slot.timer->isZombie();
    }
    /// It is, or it may have been in the turn under way.
    bool isDeaf(Slot const& slot) const { return mutedInTurn_ >= outermost_ || !isHeard(slot); }
    void renew(Slot& slot) {
        slot.timer = new Timer(wheel_, [this, &slot] { expired(slot); });
    }
    void forget(Slot& slot) {
        model_.erase({tickOf(slot.at), &slot});
        slot.at = endOfTime;
    }

    void change() {
        Slot& slot = random_.of(slots_);
        std::size_t const what = random_.below(40);
        random_.doing("change " + std::to_string(what) + " of", static_cast<double>(&slot - &slots_[0]));
        if (what > 2)
            forget(slot);
        else
            mutedInTurn_ = turns_;
        switch (what) {
        case 0: return wheel_->hasNotificationActiveIs(!random_.oneIn(4));
        case 1: return slot.timer->hasNotificationActiveIs(!random_.oneIn(4));
        case 2: return slot.timer->moxDoZombieReactors(random_.oneIn(4));
        case 3: return slot.timer->notifierIs(nullptr), slot.timer->notifierIs(wheel_);
        case 4: return renew(slot);
        }
        slot.at = random_.oneIn(5) ? endOfTime : someTime();
        slot.timer->timeMinIs(slot.at);
        if (slot.at != endOfTime)
            model_.emplace(tickOf(slot.at), &slot);
        slot.armedInTurn = turns_;
    }
    Seconds someTime() {
        constexpr Seconds most = std::numeric_limits<Seconds>::max();
        constexpr std::array rare{-most, -1e18, 1e9, 1e18, most, 5.0, 5.0, 5.0, 5.0};
        constexpr std::array spans{0.02, 0.1, 2.0, 20.0, 100.0};
        Seconds const time =
            clock_->now() + (random_.oneIn(8) ? random_.of(rare) : random_.between(-0.01, random_.of(spans)));
        Seconds const tick = timeOf(tickOf(time));
        return random_.oneIn(6) ? tick : random_.oneIn(6) ? std::nextafter(tick, most) : time;
    }

    void turn() {
        constexpr std::array steps{1e-9, 0.003, 0.01, 0.05, 1.0, 30.0};
        // When its loop would wake it, and not before, or at any time.
        Seconds const next = timeOf(nextTick()) - clock_->now();
        bool const isNext = next > 0 && next < 100.0 && random_.oneIn(3);
        clock_->nowIs(isNext ? timeOf(nextTick()) : clock_->now() + random_.between(0.0, random_.of(steps)));
        std::size_t const turn = ++turns_;
        outermost_ = nested_ == 0 ? turn : outermost_;
        lastTick_ = -farTick;
        loop_->runOnce();
        for (Slot& slot : slots_)
            if (slot.at <= clock_->now() && timeOf(tickOf(slot.at)) <= clock_->now()) {
                bool const isSpent = slot.timer->timeMin() == endOfTime && isDeaf(slot);
                ASSERT_TRUE(isSpent || slot.armedInTurn >= turn) << "it is due and was not called";
                if (isSpent)
                    forget(slot);
            }
        lastTick_ = -farTick;
        ++turns_; // what is armed between turns may fire in the next one
    }
    void expired(Slot& slot) {
        ++fired_;
        ASSERT_TRUE(isHeard(slot));
        ASSERT_LE(slot.at, clock_->now()) << "early, or not armed";
        ASSERT_LE(lastTick_, tickOf(slot.at)) << "not in the order of ticks";
        ASSERT_NE(turns_, slot.armedInTurn) << "in the turn in which it was armed";
        ASSERT_EQ(endOfTime, slot.timer->timeMin());
        lastTick_ = nested_ == 0 ? tickOf(slot.at) : lastTick_;
        forget(slot);
        for (std::size_t changes = random_.below(3); changes > 0; --changes)
            change();
        if (nested_ < 2 && random_.oneIn(30))
            ++nested_, turn(), --nested_;
        if (random_.oneIn(20))
            throw 1;
    }

    Ptr<EventLoop> const loop_ = EventLoop::EventLoopIs();
    Ptr<VirtualClock> const clock_ = VirtualClock::VirtualClockIs();
    Random random_;
    Ptr<TimerWheel> const wheel_;
    std::set<std::pair<S64, Slot*>> model_;
    std::array<Slot, 100> slots_;
    std::size_t turns_ = 1, outermost_ = 1, mutedInTurn_ = 0, nested_ = 0, fired_ = 0;
    S64 lastTick_ = 0;
};

TEST(TimerWheelModel, FiresWhatASortedSetFires) {
    constexpr Seconds shortOf32Bits = 42949672.96 - 600.0; // in ticks
    TraceLog const log({}, "Mox");
    std::size_t const steps = operations(250'000);
    for (U32 const buckets : {1024u, 5u})
        for (bool const movesLazily : {true, false}) {
            WheelProgram program(movesLazily, buckets, buckets == 5 ? shortOf32Bits : 0.0);
            for (std::size_t step = 0; step < steps && !testing::Test::HasFailure(); ++step)
                program.step();
            EXPECT_GT(program.fired(), steps / 8) << buckets;
        }
}

/// Timers by name on a wheel of 10 milliseconds a tick; each writes down its name when it fires.
struct TimerWheelTest : testing::Test {
    Ptr<Timer> timer(char name, Seconds at) {
        Ptr<Timer> const made = new Timer(wheel, [this, name] { order += name; });
        made->timeMinIs(at);
        return made;
    }

    VirtualTime time{true};
    Ptr<TimerWheel> wheel = TimerWheel::TimerWheelIs(nullptr, nullptr, 10, 8640000, true, 1024);
    std::string order;
};

TEST_F(TimerWheelTest, IsThereUntilItsPollEndsThoughAnExpiryLetsItGo) {
    Ptr<Timer> second = timer('b', 0.02), first = new Timer(wheel, [&] {
                                              first = second = nullptr;
                                              EXPECT_EQ(2u, std::exchange(wheel, nullptr)->references())
                                                  << "its own beside this one";
                                          });
    first->timeMinIs(0.01);
    time.clock->nowIs(0.05);
    time.manager->run();
    EXPECT_FALSE(wheel);
    EXPECT_EQ("", order);
}

// With nothing due there are no wake-ups, and few after timeouts as servers have them: each request arms one
// and disarms it long before it is due. The far future never comes.
TEST_F(TimerWheelTest, WakesSeldomBesidesWhatIsDue) {
    Ptr<Timer> const far = timer('f', 1e5), timeout = timer('t', endOfTime);
    time.manager->runUntil(3600.0);
    EXPECT_EQ(0u, wheel->wakeups());
    constexpr U64 seconds = 1000;
    for (U64 request = 0; request < seconds * 20; ++request) {
        timeout->timeMinIs(now() + 5.0);
        time.manager->runUntil(now() + 0.025);
        timeout->timeMinIs(endOfTime);
        time.manager->runUntil(now() + 0.025);
    }
    EXPECT_LE(wheel->wakeups(), seconds);
    for (Seconds const at : {endOfTime, 1e18, std::numeric_limits<Seconds>::max()}) {
        far->timeMinIs(at);
        EXPECT_EQ(endOfTime, time.manager->nextDue());
    }
    far->timeMinIs(1e4);
    time.manager->run();
    EXPECT_EQ("f", order);
}

TEST_F(TimerWheelTest, MassOfTimersIsWorkedOffOverTurns) {
    std::vector<Ptr<Timer>> many(50'000);
    for (auto& one : many)
        one = timer('m', 1.0);
    Ptr<Timer> const behind = timer('a', 1.0), later = timer('b', 1.01);
    for (auto const& one : many)
        one->timeMinIs(1000.0);
    time.clock->nowIs(1.01);
    time.manager->runOnce();
    EXPECT_EQ("", order) << "they held the thread";
    for (int turns = 1; turns < 200; ++turns)
        time.manager->runOnce();
    EXPECT_EQ("ab", order);
    time.clock->nowIs(1000.0);
    for (std::size_t before = 2; before < many.size() + 2; before = order.size()) {
        time.manager->runOnce();
        ASSERT_TRUE(before < order.size() && order.size() <= before + 256);
    }
}

} // namespace
