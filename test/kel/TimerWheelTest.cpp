#include <kel/EventLoopTimerWheel.h>

#include <mox/TraceHandle.h>

#include <support/Calls.h>
#include <support/Random.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

using Kel::TimerWheel;
using Mox::Ptr;
using Mox::S64;
using Mox::Seconds;

using Timer = TestSupport::TimerCall<TimerWheel::NotifieeConst>;

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

struct Form {
    bool lazy;
    Mox::U32 buckets;
    Seconds start;
};

/// A random program that arms, moves, disarms, mutes, destroys and polls timers, inside expiries too, which
/// also throw, against a map sorted by ticks. The wheel has a loop and a clock of its own.
class WheelProgram {
  public:
    explicit WheelProgram(Form const& form)
        : wheel_(Kel::EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, clock_, 10, 8640000, form.lazy,
                                                                 form.buckets, loop_)) {
        Mox::TraceHandle::traceHandle("Mox").sinkIs([](auto&) {});
        clock_->nowIs(form.start);
        for (std::size_t i = 0; i < slots_.size(); ++i)
            renew(i);
    }

    ~WheelProgram() { Mox::TraceHandle::traceHandle("Mox").sinkIs(nullptr); }
    void step() {
        if (random_.oneIn(3))
            turn();
        else
            change();
        ASSERT_EQ(model_.size(), wheel_->armed());
        if (!model_.empty() && model_.begin()->first < farTick) {
            ASSERT_LE(loop_->nextDue(), std::max(0.0, timeOf(model_.begin()->first) - clock_->now()));
        }
    }
    std::size_t fired() const { return fired_; }

  private:
    using Model = std::multimap<S64, std::size_t>;
    struct Slot {
        Ptr<Timer> timer;
        Seconds at = Mox::endOfTime;
        Model::iterator place;
        std::size_t armedInTurn = 0, deafInTurn = 0;
    };
    /// It is, or was in the turn under way.
    bool isDeaf(Slot const& slot) const {
        return slot.deafInTurn >= outermost_ || wheelOffInTurn_ >= outermost_ ||
               !wheel_->hasNotificationActive() || !slot.timer->hasNotificationActive() ||
               slot.timer->isZombie();
    }

    void renew(std::size_t i) {
        slots_[i].timer = new Timer(wheel_, [this, i] { expired(i); });
    }
    void forget(Slot& slot) {
        if (slot.at != Mox::endOfTime)
            model_.erase(slot.place);
        slot.at = Mox::endOfTime;
    }

    void change() {
        std::size_t const i = random_.below(slots_.size());
        Slot& slot = slots_[i];
        if (slot.timer->timeMin() != Mox::endOfTime || !isDeaf(slot)) {
            ASSERT_EQ(slot.at, slot.timer->timeMin());
        }
        switch (random_.below(40)) {
        case 0: return forget(slot), renew(i);
        case 1: return forget(slot), slot.timer->notifierIs(nullptr), slot.timer->notifierIs(wheel_);
        case 2: wheelOffInTurn_ = turns_; return wheel_->hasNotificationActiveIs(!random_.oneIn(4));
        case 3: slot.deafInTurn = turns_; return slot.timer->hasNotificationActiveIs(!random_.oneIn(4));
        case 4: slot.deafInTurn = turns_; return slot.timer->moxDoZombieReactors(random_.oneIn(4));
        }
        forget(slot);
        slot.at = random_.oneIn(5) ? Mox::endOfTime : someTime();
        slot.timer->timeMinIs(slot.at);
        if (slot.at == Mox::endOfTime)
            return;
        slot.place = model_.emplace(tickOf(slot.at), i);
        slot.armedInTurn = turns_;
    }
    Seconds someTime() {
        constexpr Seconds most = std::numeric_limits<Seconds>::max();
        constexpr std::array rare{-most, -1e18, 1e9, 1e18, most};
        constexpr std::array spans{0.02, 0.1, 2.0, 100.0};
        Seconds const now = clock_->now();
        Seconds const tick = timeOf(tickOf(now) + static_cast<S64>(random_.below(2048)));
        switch (random_.below(7)) {
        case 0: return tick;
        case 1: return std::nextafter(tick, most);
        case 2: return random_.oneIn(2) ? now + 5.0 : rare[random_.below(rare.size())];
        default: return now + random_.between(-0.01, spans[random_.below(spans.size())]);
        }
    }

    void turn() {
        constexpr std::array<Seconds, 6> steps{0.0, 0.003, 0.01, 0.05, 1.0, 30.0};
        Seconds const next = model_.empty() ? 0.0 : timeOf(model_.begin()->first);
        if (next > clock_->now() && next < clock_->now() + 100.0 && random_.oneIn(3))
            clock_->nowIs(next); // when its loop would wake it, and not before
        else
            clock_->nowInc(random_.between(0.0, 1.0) * steps[random_.below(steps.size())]);
        std::size_t const turn = ++turns_;
        outermost_ = nested_ == 0 ? turn : outermost_;
        lastTick_ = std::numeric_limits<S64>::min();
        loop_->runOnce();
        for (auto at = model_.begin(); at != model_.end() && timeOf(at->first) <= clock_->now();) {
            Slot& slot = slots_[at++->second];
            if (slot.timer->timeMin() == Mox::endOfTime && isDeaf(slot))
                forget(slot); // it is spent
            else
                ASSERT_LE(turn, slot.armedInTurn) << "it is due and was not called";
        }
        ++turns_; // what is armed between turns may fire in the next one
    }
    void expired(std::size_t i) {
        Slot& slot = slots_[i];
        ++fired_;
        ASSERT_LE(slot.at, clock_->now()) << "early, or not armed";
        ASSERT_TRUE(nested_ > 0 || slot.place->first >= lastTick_) << "not in the order of ticks";
        ASSERT_NE(turns_, slot.armedInTurn) << "in the turn in which it was armed";
        ASSERT_EQ(Mox::endOfTime, slot.timer->timeMin());
        lastTick_ = slot.place->first;
        forget(slot);
        for (std::size_t changes = random_.below(3); changes > 0; --changes)
            change();
        if (nested_ < 2 && random_.oneIn(30))
            ++nested_, turn(), --nested_, lastTick_ = std::numeric_limits<S64>::min();
        if (random_.oneIn(20))
            throw 1;
    }

    Ptr<Kel::EventLoop> const loop_ = Kel::EventLoop::EventLoopIs();
    Ptr<Mox::VirtualClock> const clock_ = Mox::VirtualClock::VirtualClockIs();
    TestSupport::Random random_;
    Ptr<TimerWheel> const wheel_;
    Model model_;
    std::array<Slot, 100> slots_;
    std::size_t turns_ = 1, outermost_ = 1, wheelOffInTurn_ = 0, nested_ = 0;
    S64 lastTick_ = 0;
    std::size_t fired_ = 0;
};

TEST(TimerWheelModel, FiresWhatASortedMapFires) {
    constexpr Seconds shortOf32Bits = 42949672.96 - 600.0; // in ticks
    std::size_t const steps = TestSupport::operations(250'000);
    for (Form const& form : {Form{true, 1024, 0.0}, Form{false, 1024, 0.0}, Form{true, 8, shortOf32Bits},
                             Form{false, 5, shortOf32Bits}}) {
        WheelProgram program(form);
        for (std::size_t step = 0; step < steps && !testing::Test::HasFailure(); ++step)
            program.step();
        EXPECT_GT(program.fired(), steps / 8) << form.lazy << form.buckets;
    }
}

/// Timers by name on a wheel of 10 milliseconds a tick; each writes down its name when it fires.
struct TimerWheelTest : testing::Test {
    Timer& timer(char name, Seconds at) {
        timers[name] = new Timer(wheel, [this, name] { order += name; });
        timers[name]->timeMinIs(at);
        return *timers[name];
    }
    /// What fires in one turn at that time.
    std::string turnAt(Seconds at) {
        order.clear();
        time.clock->nowIs(at);
        time.manager->runOnce();
        return order;
    }

    TestSupport::VirtualTime time{true};
    Ptr<TimerWheel> wheel = TimerWheel::TimerWheelIs(nullptr, nullptr, 10, 8640000, true, 1024);
    std::map<char, Ptr<Timer>> timers;
    std::string order;
};

TEST_F(TimerWheelTest, IsThereUntilItsPollEndsThoughAnExpiryLetsItGo) {
    timer('b', 0.02);
    timers['a'] = new Timer(wheel, [this] {
        timers.clear();
        EXPECT_EQ(2u, std::exchange(wheel, nullptr)->references()) << "its own beside this one";
    });
    timers['a']->timeMinIs(0.01);
    for (Seconds at : {0.05, 1.0})
        EXPECT_EQ("", turnAt(at));
}

// With nothing due there are no wake-ups, and few after timeouts as servers have them: each request arms one
// and disarms it long before it is due.
TEST_F(TimerWheelTest, WakesSeldomBesidesWhatIsDue) {
    timer('z', 1e5);
    for (int second = 0; second <= 3600; ++second)
        turnAt(second);
    EXPECT_EQ(0u, wheel->wakeups());
    constexpr int seconds = 1000;
    for (int request = 0; request < seconds * 20; ++request) {
        timer('t', Mox::now() + 5.0);
        EXPECT_EQ("", turnAt(Mox::now() + 0.025));
        timers['t']->timeMinIs(Mox::endOfTime);
        turnAt(Mox::now() + 0.025);
    }
    EXPECT_LE(wheel->wakeups(), Mox::U64{seconds});
    timers.clear();
    EXPECT_EQ(Mox::endOfTime, time.manager->nextDue());
}

TEST_F(TimerWheelTest, MassOfMovedTimersIsWorkedOffOverTurns) {
    std::size_t fired = 0;
    std::vector<Ptr<Timer>> many(50'000);
    for (auto& one : many) {
        one = new Timer(wheel, [&] { ++fired; });
        one->timeMinIs(1.0);
    }
    timer('a', 1.0); // behind them, in the same tick
    timer('b', 1.01);
    for (auto const& one : many)
        one->timeMinIs(1000.0);
    EXPECT_EQ("", turnAt(1.01)) << "they held the thread";
    int turns = 1;
    for (; time.manager->nextDue() == 0.0; ++turns)
        time.manager->runOnce();
    EXPECT_LE(turns, 10);
    EXPECT_EQ("ab", order);
    EXPECT_EQ(many.size(), wheel->armed());
    time.manager->run();
    EXPECT_EQ(many.size(), fired);
}

// No clock jumps there, and arming it there or back asks for nothing.
TEST_F(TimerWheelTest, TheFarFutureNeverComes) {
    for (Seconds const far : {1e18, std::numeric_limits<Seconds>::max()}) {
        timer('f', far);
        EXPECT_EQ(Mox::endOfTime, time.manager->nextDue());
        time.manager->run();
    }
    timers['f']->timeMinIs(1.0);
    time.manager->run();
    EXPECT_EQ("f", order);
    EXPECT_EQ(1.0, Mox::now());
}

using TimerWheelDeathTest = TimerWheelTest;

TEST_F(TimerWheelDeathTest, AssertsOnWhatCannotBeArmed) {
    Timer& a = timer('a', 1.0);
    EXPECT_DEATH(a.timeMinIs(std::nan("")), "!std::isnan\\( time \\), source TimerWheel");
    a.notifierIs(nullptr);
    EXPECT_DEATH(a.timeMinIs(1.0), "notifier\\(\\), source TimerWheel");
    EXPECT_DEATH(TimerWheel::TimerWheelIs(nullptr, nullptr, 0, 1, true, 1), "tickMsec > 0");
}

} // namespace
