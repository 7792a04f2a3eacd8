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

TEST(EventLoopRealTime, SleepsUntilATimerIsDue) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    Mox::Seconds const due = Mox::now() + 0.3;
    Mox::Seconds fired = 0;
    EventCall timer(loop, [&] { fired = Mox::now(); });
    double const usedBefore = processorSeconds();
    timer.in(0.3);
    loop->run();
    EXPECT_GE(fired, due);
    EXPECT_LT(processorSeconds() - usedBefore, 0.1) << "the loop went round instead of sleeping";
}

TEST(EventLoopRealTime, SleepsWhenIdleUntilAnotherThreadPosts) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    loop->runsWhenIdleIs(true);
    bool posted = false;
    double const usedBefore = processorSeconds();
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        boost::asio::post(loop->ioContext(), [&] { posted = true, loop->stop(); });
    });
    loop->run();
    EXPECT_TRUE(posted);
    EXPECT_LT(processorSeconds() - usedBefore, 0.1) << "the loop went round instead of sleeping";
    poster.join();
}

TEST(EventLoopRealTime, ApplicationsIoContextFiresTimersAndRunsDry) {
    boost::asio::io_context ioContext;
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(ioContext);
    std::string order;
    EventCall late(loop, [&] { order += 'c'; });
    EventCall early(
        loop, [&] { order += 'b', early.in(0.0), order.size() > 3 ? early.in(Mox::endOfTime) : void(); });
    EventCall never(loop, [&] { order += '!'; });
    late.in(0.02);
    early.in(0.01);
    never.in(3600);
    boost::asio::post(ioContext, [&] { order += 'a', never.in(Mox::endOfTime); });
    ioContext.run(); // returns, since nothing is pending
    EXPECT_EQ("abbbc", order);
}

} // namespace
