#include <kel/EventLoopTimerWheel.h>

#include <support/Calls.h>
#include <support/Random.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>
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

/// A random program that arms, moves, disarms, destroys and polls timers, inside expiries too, against a map
/// sorted by ticks.
class WheelProgram {
  public:
    explicit WheelProgram(Form const& form)
        : wheel_(TimerWheel::TimerWheelIs(nullptr, nullptr, 10, 8640000, form.lazy, form.buckets)) {
        time_.clock->nowIs(form.start);
        for (std::size_t i = 0; i < slots_.size(); ++i)
            renew(i);
    }

    void step() {
        if (random_.oneIn(3))
            turn();
        else
            change();
        ASSERT_EQ(model_.size(), wheel_->armed());
        if (!model_.empty() && model_.begin()->first < farTick) {
            ASSERT_LE(time_.manager->nextDue(), std::max(0.0, timeOf(model_.begin()->first) - Mox::now()));
        }
    }
    std::size_t fired() const { return fired_; }

  private:
    using Model = std::multimap<S64, std::size_t>;
    struct Slot {
        Ptr<Timer> timer;
        Seconds at = Mox::endOfTime;
        Model::iterator place;
        std::size_t armedInTurn = 0;
    };

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
        ASSERT_EQ(slot.at, slot.timer->timeMin());
        forget(slot);
        if (random_.oneIn(20))
            return renew(i);
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
        Seconds const now = Mox::now();
        switch (random_.below(7)) {
        case 0: return now + random_.between(-1.0, 0.02);
        case 1: return now + random_.between(0.0, 0.1);
        case 2: return now + random_.between(0.0, 2.0);
        case 3: return now + random_.between(0.0, 100.0);
        case 4: return timeOf(tickOf(now) + static_cast<S64>(random_.below(2048)));
        case 5: return std::nextafter(timeOf(tickOf(now) + static_cast<S64>(random_.below(2048))), most);
        default: return random_.oneIn(2) ? now + 5.0 : rare[random_.below(rare.size())];
        }
    }

    void turn() {
        constexpr std::array<Seconds, 6> steps{0.0, 0.003, 0.01, 0.05, 1.0, 30.0};
        Seconds const next = model_.empty() ? 0.0 : timeOf(model_.begin()->first);
        if (next > Mox::now() && next < Mox::now() + 100.0 && random_.oneIn(3))
            time_.clock->nowIs(next); // when its loop would wake it, and not before
        else
            time_.clock->nowInc(random_.between(0.0, 1.0) * steps[random_.below(steps.size())]);
        ++turns_;
        lastTick_ = std::numeric_limits<S64>::min();
        time_.manager->runOnce();
        auto at = model_.begin();
        for (; at != model_.end() && timeOf(at->first) <= Mox::now(); ++at)
            ASSERT_EQ(turns_, slots_[at->second].armedInTurn) << "it is due and was not called";
        ++turns_; // what is armed between turns may fire in the next one
    }
    void expired(std::size_t i) {
        Slot& slot = slots_[i];
        ++fired_;
        ASSERT_LE(slot.at, Mox::now()) << "early, or not armed";
        ASSERT_GE(slot.place->first, lastTick_) << "not in the order of ticks";
        ASSERT_NE(turns_, slot.armedInTurn) << "in the turn in which it was armed";
        ASSERT_EQ(Mox::endOfTime, slot.timer->timeMin());
        lastTick_ = slot.place->first;
        forget(slot);
        for (std::size_t changes = random_.below(3); changes > 0; --changes)
            change();
    }

    TestSupport::VirtualTime time_;
    TestSupport::Random random_;
    Ptr<TimerWheel> const wheel_;
    Model model_;
    std::array<Slot, 100> slots_;
    std::size_t turns_ = 1;
    S64 lastTick_ = 0;
    std::size_t fired_ = 0;
};

class TimerWheelModel : public testing::TestWithParam<Form> {};

TEST_P(TimerWheelModel, FiresWhatASortedMapFires) {
    std::size_t const steps = TestSupport::operations(250'000);
    WheelProgram program(GetParam());
    for (std::size_t step = 0; step < steps && !HasFailure(); ++step)
        program.step();
    EXPECT_GT(program.fired(), steps / 4);
}

constexpr Seconds shortOf32Bits = 42949672.96 - 600.0; // in ticks

INSTANTIATE_TEST_SUITE_P(Forms, TimerWheelModel,
                         testing::Values(Form{true, 1024, 0.0}, Form{false, 1024, 0.0},
                                         Form{true, 8, shortOf32Bits}, Form{false, 8, shortOf32Bits}),
                         [](auto const& form) {
                             return std::string(form.param.lazy ? "Lazy" : "Eager") +
                                    std::to_string(form.param.buckets) + "Buckets";
                         });

Ptr<TimerWheel> wheelIs(bool lazy = true) {
    return TimerWheel::TimerWheelIs(nullptr, nullptr, 10, 8640000, lazy, 1024);
}

/// Timers by name on a wheel of 10 milliseconds a tick; each writes down its name when it fires.
struct TimerWheelTest : testing::Test {
    Timer& timer(char name, Seconds at, std::function<void()> then = {}) {
        timers[name] = new Timer(wheel, [this, name, then] {
            order += name;
            if (then)
                then();
        });
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
    Ptr<TimerWheel> wheel = wheelIs();
    std::map<char, Ptr<Timer>> timers;
    std::string order;
};

// Three are due in one turn, a before b before c; what b does decides who fires in this turn and in the next
// one at the same time.
TEST_F(TimerWheelTest, ExpiryMayDoWhatItWants) {
    using T = TimerWheelTest;
    struct {
        char const* what;
        void (*then)(T&);
        char const* now;
        char const* nextTurn;
    } const cases[] = {
        {"mutes the next", [](T& t) { t.timers['c']->hasNotificationActiveIs(false); }, "ab", ""},
        {"makes the next a zombie", [](T& t) { t.timers['c']->moxDoZombieReactors(true); }, "ab", ""},
        {"moves the next to another wheel",
         [](T& t) { t.timers['c']->notifierIs(wheelIs()), t.timers['c']->timeMinIs(0.02); }, "ab", "c"},
        {"switches the wheel off", [](T& t) { t.wheel->hasNotificationActiveIs(false); }, "ab", ""},
        {"throws", [](T&) { throw 1; }, "abc", ""},
        {"lets wheel and timers go", [](T& t) { t.timers.clear(), t.wheel = nullptr; }, "ab", ""},
    };
    testing::internal::CaptureStderr(); // the trace of what was thrown
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string("b ") + c.what);
        wheel = wheelIs();
        Seconds const start = Mox::now();
        timer('a', start + 0.01);
        timer('c', start + 0.03);
        timer('b', start + 0.02, [&] { c.then(*this); });
        EXPECT_EQ(c.now, turnAt(start + 0.05));
        EXPECT_EQ(c.nextTurn, turnAt(start + 0.05));
        EXPECT_EQ("", turnAt(start + 1.0));
        timers.clear();
    }
    testing::internal::GetCapturedStderr();
}

TEST_F(TimerWheelTest, LoopTurnedInAnExpiryServesTheOtherTimers) {
    timer('a', 1.0, [this] { time.manager->runUntil(3.0), order += '.'; });
    timer('b', 1.0, [] { EXPECT_EQ(1.0, Mox::now()); });
    timer('c', 2.0);
    timer('d', 4.0);
    time.manager->run();
    EXPECT_EQ("abc.d", order);
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
    constexpr std::size_t moved = 50'000;
    std::size_t fired = 0;
    std::vector<Ptr<Timer>> many(moved);
    for (auto& one : many) {
        one = new Timer(wheel, [&] { ++fired; });
        one->timeMinIs(1.0);
    }
    timer('a', 1.0); // behind them, in the same tick
    timer('b', 1.01);
    for (auto const& one : many)
        one->timeMinIs(1000.0);
    auto const turnsAt = [&](Seconds at) {
        time.clock->nowIs(at);
        int turns = 0;
        for (; time.manager->nextDue() == 0.0 || turns == 0; ++turns)
            time.manager->runOnce();
        return turns;
    };
    int const turns = turnsAt(1.01);
    EXPECT_GE(turns, 2) << "they held the thread";
    EXPECT_LE(turns, 10);
    EXPECT_EQ("ab", order);
    EXPECT_EQ(moved, wheel->armed());
    turnsAt(1000.0);
    EXPECT_EQ(moved, fired);
}

TEST_F(TimerWheelTest, FollowsAClockOfItsOwnAndALoopOfItsOwn) {
    Ptr<Mox::VirtualClock> const other = Mox::VirtualClock::VirtualClockIs();
    Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    wheel = Kel::EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, other, 10, 8640000, true, 1000, loop);
    timer('a', 1.0);
    time.clock->nowIs(50.0);
    EXPECT_EQ(0u, loop->runOnce());
    other->nowIs(1.0);
    EXPECT_EQ(0u, time.manager->runOnce());
    EXPECT_EQ(1u, loop->runOnce());
    EXPECT_EQ("a", order);
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
