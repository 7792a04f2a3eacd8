#include <kel/EventLoopTimerWheel.h>

#include <support/Calls.h>
#include <support/Random.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

using Kel::TimerWheel;
using Mox::Ptr;
using Mox::Seconds;

using Timer = TestSupport::TimerCall<TimerWheel::NotifieeConst>;

Ptr<TimerWheel> wheelIs(bool lazy = true) {
    return TimerWheel::TimerWheelIs(nullptr, nullptr, 10, 8640000, lazy, 1024);
}

/// Timers by name on a wheel of 10 milliseconds a tick; each writes down its name and the time when it fires.
struct TimerWheelTest : testing::Test {
    Timer& timer(char name, Seconds at, std::function<void()> then = {}) {
        timers[name] = new Timer(wheel, [this, name, then] {
            order += name;
            times.push_back(Mox::now());
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

    TestSupport::VirtualTime time;
    Ptr<TimerWheel> wheel = wheelIs();
    std::map<char, Ptr<Timer>> timers;
    std::string order;
    std::vector<Seconds> times;
};

// 0.07 and 0.29 are no multiples of 0.01 as doubles; from 2^32 ticks on a 32-bit count would have wrapped.
TEST_F(TimerWheelTest, FiresAtTheFirstTickThatIsNotBeforeItsTime) {
    time.clock->autoAdvanceIs(true);
    TestSupport::Random random;
    std::vector<Seconds> wanted{0.005, 0.01,        0.02,        0.07,        0.29,
                                10.24, 42949672.95, 42949672.96, 42949672.97, 1e9};
    for (std::size_t i = 0; i < TestSupport::operations(20'000); ++i)
        wanted.push_back(std::pow(10.0, random.between(-3, 10)));
    std::ranges::sort(wanted);
    for (Seconds const t : wanted) {
        Seconds fired = 0;
        Ptr<Timer> const one = new Timer(wheel, [&] { fired = Mox::now(); });
        one->timeMinIs(t);
        time.manager->run();
        ASSERT_GE(fired, t);
        auto const tick = static_cast<Seconds>(std::llround(fired / 0.01));
        ASSERT_EQ(tick * 0.01, fired) << "not at a tick";
        ASSERT_LT((tick - 1) * 0.01, t) << "a tick late";
    }
}

// Three are due in one turn, a before b before c; what b does decides who fires in this turn, in the next one
// at the same time, and a second later.
TEST_F(TimerWheelTest, ExpiryMayChangeItselfAndItsNeighbours) {
    using T = TimerWheelTest;
    struct {
        char const* what;
        void (*then)(T&);
        char const* now;
        char const* nextTurn;
        char const* later;
    } const cases[] = {
        {"re-arms for later", [](T& t) { t.timers['b']->timeMinIs(Mox::now() + 0.5); }, "abc", "", "b"},
        {"re-arms for the past", [](T& t) { t.timers['b']->timeMinIs(0.01); }, "abc", "b", ""},
        {"destroys itself", [](T& t) { t.timers.erase('b'); }, "abc", "", ""},
        {"disarms the next", [](T& t) { t.timers['c']->timeMinIs(Mox::endOfTime); }, "ab", "", ""},
        {"moves the next", [](T& t) { t.timers['c']->timeMinIs(Mox::now() + 0.5); }, "ab", "", "c"},
        {"destroys the next", [](T& t) { t.timers.erase('c'); }, "ab", "", ""},
        {"mutes the next", [](T& t) { t.timers['c']->hasNotificationActiveIs(false); }, "ab", "", ""},
        {"makes the next a zombie", [](T& t) { t.timers['c']->moxDoZombieReactors(true); }, "ab", "", ""},
        {"moves the next to another wheel",
         [](T& t) { t.timers['c']->notifierIs(wheelIs()), t.timers['c']->timeMinIs(0.02); }, "ab", "c", ""},
        {"arms the one before", [](T& t) { t.timers['a']->timeMinIs(Mox::now() + 0.5); }, "abc", "", "a"},
        {"arms a new one", [](T& t) { t.timer('d', Mox::now() + 0.5); }, "abc", "", "d"},
        {"switches the wheel off", [](T& t) { t.wheel->hasNotificationActiveIs(false); }, "ab", "", ""},
        {"throws", [](T&) { throw 1; }, "abc", "", ""},
        {"lets wheel and timers go", [](T& t) { t.timers.clear(), t.wheel = nullptr; }, "ab", "", ""},
        {"turns the loop", [](T& t) { t.time.manager->runOnce(); }, "abc", "", ""},
    };
    testing::internal::CaptureStderr(); // the trace of what was thrown
    for (bool const lazy : {true, false})
        for (auto const& c : cases) {
            SCOPED_TRACE(std::string("b ") + c.what + (lazy ? "" : ", eagerly"));
            wheel = wheelIs(lazy);
            Seconds const start = Mox::now();
            timer('a', start + 0.01);
            timer('c', start + 0.03);
            auto once = c.then;
            timer('b', start + 0.02, [&] {
                if (auto const then = std::exchange(once, nullptr))
                    then(*this);
            });
            EXPECT_EQ(c.now, turnAt(start + 0.05));
            EXPECT_EQ(c.nextTurn, turnAt(start + 0.05));
            EXPECT_EQ(c.later, turnAt(start + 1.0));
            timers.clear();
        }
    testing::internal::GetCapturedStderr();
}

TEST_F(TimerWheelTest, LoopTurnedInAnExpiryServesTheOtherTimers) {
    time.clock->autoAdvanceIs(true);
    timer('a', 1.0, [this] { time.manager->runUntil(3.0), order += '.'; });
    timer('b', 1.0);
    timer('c', 2.0);
    timer('d', 4.0);
    time.manager->run();
    EXPECT_EQ("abc.d", order);
    EXPECT_THAT(times, testing::ElementsAre(1.0, 1.0, 2.0, 4.0));
}

TEST_F(TimerWheelTest, AnyFiniteTimeWillDo) {
    constexpr Seconds most = std::numeric_limits<Seconds>::max();
    time.clock->nowIs(5);
    timer('a', -most);
    timer('b', -0.001);
    timer('c', most);
    timer('d', 1e18);
    timer('e', 1e15);
    EXPECT_EQ(5u, wheel->armed());
    EXPECT_THAT(turnAt(5), testing::UnorderedElementsAre('a', 'b'));
    EXPECT_EQ("", turnAt(9e14));
    EXPECT_EQ("e", turnAt(1e15 + 0.125));
    timers['c']->timeMinIs(1e15 + 1);
    timers['d']->timeMinIs(-1e18);
    EXPECT_EQ("dc", turnAt(1e15 + 2));
}

TEST_F(TimerWheelTest, IdleOneMakesNoWakeUps) {
    for (int second = 0; second < 100; ++second)
        turnAt(second);
    EXPECT_EQ(0u, wheel->wakeups());
    std::vector<Ptr<Timer>> many;
    for (int i = 0; i < 1000; ++i) {
        many.push_back(new Timer(wheel, [] {}));
        many.back()->timeMinIs(100 + 3601 + i * 0.777);
    }
    for (int second = 100; second <= 3700; ++second)
        turnAt(second);
    EXPECT_EQ(0u, wheel->wakeups());
    many.clear();
    EXPECT_EQ(Mox::endOfTime, time.manager->nextDue());
}

// Timeouts as servers have them: each request arms one and disarms it long before it is due.
TEST_F(TimerWheelTest, DisarmedTimersLeaveFewWakeUpsBehind) {
    timer('z', 1e5);
    Ptr<Timer> const timeout = new Timer(wheel, [] { FAIL(); });
    constexpr int seconds = 1000;
    for (int request = 0; request < seconds * 20; ++request) {
        timeout->timeMinIs(Mox::now() + 5.0);
        turnAt(Mox::now() + 0.025);
        timeout->timeMinIs(Mox::endOfTime);
        turnAt(Mox::now() + 0.025);
    }
    EXPECT_LE(wheel->wakeups(), Mox::U64{seconds});
}

TEST_F(TimerWheelTest, MassOfMovedTimersIsWorkedOffOverTurns) {
    constexpr std::size_t moved = 50'000;
    std::size_t fired = 0;
    std::vector<Ptr<Timer>> many;
    for (std::size_t i = 0; i < moved; ++i) {
        many.push_back(new Timer(wheel, [&] { ++fired; }));
        many.back()->timeMinIs(1.0);
    }
    timer('a', 1.0); // behind them, in the same tick
    timer('b', 1.01);
    for (auto const& one : many)
        one->timeMinIs(1000.0);
    time.clock->nowIs(1.01);
    int turns = 0;
    for (; time.manager->nextDue() == 0.0 || turns == 0; ++turns)
        time.manager->runOnce();
    EXPECT_GE(turns, 2) << "they held the thread";
    EXPECT_LE(turns, 10);
    EXPECT_EQ("ab", order);
    EXPECT_EQ(moved, wheel->armed());
    time.clock->nowIs(1000.0);
    while (time.manager->nextDue() == 0.0)
        time.manager->runOnce();
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
