#include <kel/EventLoop.h>

#include <mox/Exception.h>

#include <support/Calls.h>
#include <support/VirtualTime.h>

#include <boost/asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

using Kel::EventLoop;
using Mox::Ptr;
using Mox::Seconds;
using TestSupport::EventCall;

/// The three forms of a loop, under a virtual clock that jumps, and one whose timers with odd letters (a, c,
/// e) are alarms of that clock.
enum class Form { own, attached, carried, carriedWithAlarms };

struct EventLoopTest : testing::TestWithParam<Form> {
    EventLoopTest() {
        if (GetParam() == Form::own)
            loop = EventLoop::EventLoopIs();
        else if (GetParam() == Form::attached)
            loop = EventLoop::EventLoopIs(application.emplace());
        else
            loop = EventLoop::EventLoopIs(time.manager);
    }
    /// Makes a timer that writes down its name and the time when it fires; `timers[name]` arms it again.
    void timer(char name, Seconds delay, std::function<void()> then = {}) {
        auto const call = [this, name, then] {
            order += name;
            times.push_back(Mox::now());
            if (then)
                then();
        };
        using Alarm = TestSupport::TimerCall<Mox::Clock::NotifieeConst>;
        if (GetParam() == Form::carriedWithAlarms && name % 2 != 0)
            timers[name] = [alarm = Ptr<Alarm>(new Alarm(Ptr<Mox::Clock>(time.clock), call))](Seconds in) {
                alarm->timeMinIs(Mox::now() + in);
            };
        else
            timers[name] = [event = std::make_shared<EventCall>(loop, call)](Seconds in) { event->in(in); };
        timers[name](delay);
    }

    TestSupport::VirtualTime time{true};
    std::optional<boost::asio::io_context> application;
    Ptr<EventLoop> loop;
    std::map<char, std::function<void(Seconds)>> timers;
    std::string order;
    std::vector<Seconds> times;
};

INSTANTIATE_TEST_SUITE_P(Form, EventLoopTest,
                         testing::Values(Form::own, Form::attached, Form::carried, Form::carriedWithAlarms));

TEST_P(EventLoopTest, FiresTimersInTheOrderOfTheirTimesAndThenOfTheirArming) {
    time.clock->nowIs(100);
    timer('f', 600);
    timer('d', 600);
    timer('c', 600.5);
    timer('b', 0.02);
    timer('a', 0);
    timer('z', 1000.5);
    timer('e', 1000, [this] { timer('h', 0); });
    loop->runUntil(1100);
    EXPECT_EQ("abfdceh", order);
    EXPECT_THAT(times, testing::ElementsAre(100, 100.02, 700, 700, 700.5, 1100, 1100));
    EXPECT_EQ(1100, Mox::now());
    EXPECT_EQ(0.5, loop->nextDue());
}

TEST_P(EventLoopTest, ArmingReplacesAndEndOfTimeDisarms) {
    timer('a', 5);
    timers['a'](1);
    timer('b', 0);
    timers['b'](2); // no longer at the next turn
    for (char name : {'c', 'd'}) {
        timer(name, name - 'c');
        timers[name](Mox::endOfTime);
    }
    loop->runUntil(10);
    EXPECT_EQ("ab", order);
    EXPECT_THAT(times, testing::ElementsAre(1, 2));
}

TEST_P(EventLoopTest, TurnsNestAndWhatReArmsItselfRunsOnTheNextOne) {
    timer('a', 0, [this] { timers['a'](0); });
    timer('b', 0, [this] {
        timer('e', 0);
        order += '(';
        EXPECT_EQ(4u, loop->runOnce());
        order += ')';
    });
    timer('c', 0);
    timer('d', 0);
    EXPECT_EQ(2u, loop->runOnce());
    EXPECT_EQ("ab(cdae)", order);
    EXPECT_EQ(1u, loop->runOnce());
    EXPECT_EQ("ab(cdae)a", order);
}

TEST_P(EventLoopTest, CallbackMayDestroyTimersAndThrow) {
    timer('a', 1, [this] { timers.erase('a'), timers.erase('c'); });
    timer('c', 1);
    timer('b', 2, [] { throw Mox::RangeException("b fails"); });
    timer('d', 2);
    testing::internal::CaptureStderr(); // the trace of the exception
    loop->runUntil(3);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("A reactor threw: b fails"));
    EXPECT_EQ("abd", order);
}

TEST_P(EventLoopTest, StopEndsTheRunAfterThePresentCallbackAndTheLoopMayGo) {
    timer('a', 1, [this] { loop->stop(), loop->runOnce(); }); // which undoes nothing
    timer('c', 1.5, [this] {
        loop->stop();
        loop = nullptr;
        timers.clear();
    });
    timer('e', 1.5);
    loop->run();
    EXPECT_EQ("a", order);
    EXPECT_EQ(0.5, loop->nextDue());
    loop->run();
    EXPECT_EQ("ac", order);
}

TEST(EventLoop, MutedEventsAndReactorsAreSpent) {
    TestSupport::VirtualTime const time(true);
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    EventCall a(loop, [] { FAIL(); }), b(loop, [] { FAIL(); });
    a.reactor->hasNotificationActiveIs(false);
    b.event->hasNotificationActiveIs(false);
    for (EventCall* event : {&a, &b})
        event->in(1);
    loop->run();
    EXPECT_FALSE(a.event->armed() || b.event->armed());
}

TEST(CarriedEventLoopDeathTest, AlwaysRunsWhenIdle) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(Mox::activityManager());
    EXPECT_TRUE(loop->runsWhenIdle());
    EXPECT_DEATH(loop->runsWhenIdleIs(false), "runsWhenIdle \\|\\| !useMoxEventLoop\\(\\), source EventLoop");
}

// A jumping clock belongs to the thread; the application's io_context lets it jump too when it has run dry.
TEST(AttachedEventLoop, IoContextFollowsTheThreadsVirtualClock) {
    TestSupport::VirtualTime const time(true);
    boost::asio::io_context ioContext;
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(ioContext);
    std::vector<Seconds> times;
    auto const call = [&] { times.push_back(Mox::now()); };
    EventCall late(loop, call), early(loop, call);
    late.in(86400);
    early.in(1);
    ioContext.run();
    EXPECT_THAT(times, testing::ElementsAre(1, 86400));
}

} // namespace
