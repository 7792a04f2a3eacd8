#include <kel/EventLoop.h>

#include <mox/Exception.h>

#include <support/Calls.h>
#include <support/VirtualTime.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
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

/// The three forms of a loop, under a virtual clock that jumps.
enum class Form { own, attached, carried };

struct EventLoopTest : testing::TestWithParam<Form> {
    EventLoopTest() {
        switch (GetParam()) {
        case Form::own: loop = EventLoop::EventLoopIs(); break;
        case Form::attached: loop = EventLoop::EventLoopIs(application.emplace()); break;
        case Form::carried: loop = EventLoop::EventLoopIs(time.manager); break;
        }
    }
    EventCall& event(char name, Seconds delay, std::function<void()> then = {}) {
        events[name] = std::make_unique<EventCall>(loop, [this, name, then] {
            order += name;
            times.push_back(Mox::now());
            if (then)
                then();
        });
        events[name]->in(delay);
        return *events[name];
    }

    TestSupport::VirtualTime time{true};
    std::optional<boost::asio::io_context> application;
    Ptr<EventLoop> loop;
    std::map<char, std::unique_ptr<EventCall>> events;
    std::string order;
    std::vector<Seconds> times;
};

INSTANTIATE_TEST_SUITE_P(Form, EventLoopTest, testing::Values(Form::own, Form::attached, Form::carried),
                         [](auto const& form) {
                             return std::string(form.param == Form::own        ? "own"
                                                : form.param == Form::attached ? "attached"
                                                                               : "carried");
                         });

TEST_P(EventLoopTest, FiresTimersInTheOrderOfTheirTimes) {
    time.clock->nowIs(100);
    event('c', 600);
    event('b', 0.02);
    event('a', 0);
    event('z', 1000.5);
    loop->runUntil(1100);
    EXPECT_EQ("abc", order);
    EXPECT_THAT(times, testing::ElementsAre(100, 100.02, 700));
    EXPECT_EQ(1100, Mox::now());
    EXPECT_EQ(0.5, loop->nextDue());
}

TEST_P(EventLoopTest, ArmingReplacesAndEndOfTimeDisarms) {
    event('a', 5).in(1);
    event('b', 0).in(2); // no longer at the next turn
    event('c', 0).in(Mox::endOfTime);
    event('d', 1).in(Mox::endOfTime);
    event('e', 1).reactor->hasNotificationActiveIs(false);
    event('f', 1).event->hasNotificationActiveIs(false);
    loop->runUntil(10);
    EXPECT_EQ("ab", order);
    EXPECT_THAT(times, testing::ElementsAre(1, 2));
}

TEST_P(EventLoopTest, SelfRearmedTimerRunsOnTheNextTurn) {
    event('a', 0, [this] { events['a']->in(0); });
    event('b', 0);
    EXPECT_EQ(2u, loop->runOnce());
    EXPECT_EQ(1u, loop->runOnce());
    EXPECT_EQ("aba", order);
}

TEST_P(EventLoopTest, CallbackMayDestroyTimersAndThrow) {
    event('a', 1, [this] { events.erase('a'), events.erase('b'); });
    event('b', 1);
    event('c', 1, [] { throw Mox::RangeException("c fails"); });
    event('d', 1);
    testing::internal::CaptureStderr(); // the trace of the exception
    loop->runUntil(2);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ("acd", order);
}

TEST_P(EventLoopTest, RunIsEndedByStopAndKeepsTheLoopMeanwhile) {
    event('a', 1, [this] {
        loop->stop();
        loop = nullptr;
        events.clear();
    });
    event('b', 2);
    loop->run();
    EXPECT_EQ("a", order);
}

TEST(CarriedEventLoopDeathTest, AlwaysRunsWhenIdle) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(Mox::activityManager());
    EXPECT_TRUE(loop->runsWhenIdle());
    EXPECT_DEATH(loop->runsWhenIdleIs(false), "runsWhenIdle \\|\\| !useMoxEventLoop\\(\\), source EventLoop");
}

TEST(AttachedEventLoop, IoContextTurnsItAndReturnsWhenNothingIsPending) {
    boost::asio::io_context ioContext;
    Ptr<EventLoop> loop = EventLoop::EventLoopIs(ioContext);
    std::string order;
    int turns = 0;
    std::optional<EventCall> busy;
    busy.emplace(loop, [&] {
        if (++turns < 10'000)
            busy->in(0);
        else
            order += 'b';
    });
    EventCall far(loop, [&] { order += '!'; });
    busy->in(0);
    far.in(3600);
    boost::asio::post(ioContext, [&] { order += 'h', far.in(Mox::endOfTime); });
    ioContext.run();
    EXPECT_EQ("hb", order) << "the application's handlers come in between";

    busy->in(0); // with the loop goes what it asked of the io_context
    far.in(3600);
    loop = nullptr;
    ioContext.restart();
    boost::asio::post(ioContext, [&] { busy.reset(), far.in(Mox::endOfTime); });
    ioContext.run();
}

// A jumping clock belongs to the thread; the application's io_context lets it jump too when it has run dry.
TEST(AttachedEventLoop, IoContextFollowsTheThreadsVirtualClock) {
    TestSupport::VirtualTime const time(true);
    boost::asio::io_context ioContext;
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(ioContext);
    std::vector<Seconds> times;
    EventCall late(loop, [&] { times.push_back(Mox::now()); });
    EventCall early(loop, [&] { times.push_back(Mox::now()); });
    late.in(86400);
    early.in(1);
    ioContext.run();
    EXPECT_THAT(times, testing::ElementsAre(1, 86400));
}

} // namespace
