#include <kel/EventLoop.h>

#include <mox/SteadyClock.h>

#include <support/Calls.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>

namespace {

using Kel::EventLoop;
using Mox::Ptr;
using TestSupport::EventCall;

/// Processor time that the thread has used.
double processorSeconds() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST(EventLoopRealTime, SleepsUntilATimerIsDueOrAnotherThreadPosts) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    loop->runsWhenIdleIs(true);
    double const usedBefore = processorSeconds();
    Mox::Seconds const due = Mox::now() + 0.2;
    Mox::Seconds fired = 0;
    EventCall timer(loop, [&] { fired = Mox::now(); });
    timer.in(0.2);
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        boost::asio::post(loop->ioContext(), [&] { loop->stop(); });
    });
    loop->run();
    EXPECT_GE(fired, due);
    EXPECT_LT(processorSeconds() - usedBefore, 0.1) << "the loop went round instead of sleeping";
    poster.join();
}

TEST(EventLoopRealTime, ApplicationsIoContextTurnsItAndReturnsWhenNothingIsPending) {
    boost::asio::io_context ioContext;
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(ioContext);
    std::string order;
    int turns = 0;
    EventCall busy(loop, [&] { ++turns < 10'000 ? busy.in(0) : void(order += 'b'); });
    EventCall late(loop, [&] { order += 'd'; });
    EventCall early(loop, [&] { order += 'c'; });
    EventCall never(loop, [&] { order += '!'; });
    busy.in(0);
    late.in(0.3);
    early.in(0.2);
    never.in(3600);
    boost::asio::post(ioContext, [&] { order += 'a', never.in(Mox::endOfTime); });
    ioContext.run();
    EXPECT_EQ("abcd", order) << "the application's handlers come in between";

    { // with a loop goes what it asked of the io_context
        Ptr<EventLoop> const gone = EventLoop::EventLoopIs(ioContext);
        EventCall soon(gone, [&] { order += '!'; }), later(gone, [&] { order += '!'; });
        soon.in(0);
        later.in(3600);
    }
    ioContext.restart();
    boost::asio::post(ioContext, [&] { order += 'e'; });
    ioContext.run();
    EXPECT_EQ("abcde", order);
}

} // namespace
