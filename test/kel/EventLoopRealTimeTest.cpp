#include <kel/EventLoopTimerWheel.h>

#include <mox/SteadyClock.h>

#include <support/Calls.h>
#include <support/VirtualTime.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace TestSupport;

/// Processor time that the thread has used.
double processorSeconds() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// However far a timer is; with nothing left to wait for, a run ends, or waits for others if it was told to.
TEST(EventLoopRealTime, SleepsUntilATimerIsDueOrAnotherThreadPosts) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    double const usedBefore = processorSeconds();
    EventCall far(loop, [] { FAIL(); });
    std::vector<std::jthread> posters;
    auto const post = [&](int milliseconds, std::function<void()> call) {
        posters.emplace_back([=] {
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            boost::asio::post(loop->ioContext(), call);
        });
    };
    Seconds const due = now() + 0.2;
    EventCall timer(loop, [&] { EXPECT_GE(now(), due); });
    timer.in(0.2);
    far.in(1e300);
    post(400, [&] { far.in(endOfTime); });
    loop->run();
    EXPECT_GE(now(), due + 0.2) << "the far timer was pending";

    loop->runsWhenIdleIs(true);
    post(100, [&] { loop->stop(); });
    loop->run();
    VirtualTime const time; // stands still unless it is moved
    post(200, [&] { time.clock->nowIs(7); });
    loop->runUntil(7);
    EXPECT_EQ(7, now()) << "it did not wait";
    EXPECT_LT(processorSeconds() - usedBefore, 0.08) << "the loop went round instead of sleeping";
}

// More timers than a poll tells, and callbacks that read the clock, so that a budget is soon over.
TEST(EventLoopRealTime, EndsBehindAllThatIsDueAtTheEnd) {
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs();
    Ptr<TimerWheel> const wheel =
        EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, nullptr, 10, 1000, false, 16, loop);
    Seconds const end = std::ceil(now() * 100 + 1) * 0.01;
    std::size_t told = 0;
    std::vector<Ptr<TimerCall<TimerWheel::NotifieeConst>>> timers(2000);
    for (auto& timer : timers) {
        timer = new TimerCall<TimerWheel::NotifieeConst>(wheel, [&] { ++told, SteadyClock::now(); });
        timer->timeMinIs(end);
    }
    loop->runUntil(end);
    EXPECT_EQ(timers.size(), told);
}

TEST(EventLoopRealTime, ApplicationsIoContextSleepsAndReturnsWhenNothingIsPending) {
    boost::asio::io_context ioContext;
    Ptr<EventLoop> const loop = EventLoop::EventLoopIs(ioContext);
    std::string order;
    EventCall late(loop, [&] { order += 'b'; }), never(loop, [&] { order += '!'; });
    late.in(0.1);
    for (char const name : {'a', 'c'}) {
        never.in(3600);
        boost::asio::post(ioContext, [&, name] { order += name, never.in(endOfTime); });
        // With a loop goes what it asked of the io_context.
        Ptr<EventLoop> gone = EventLoop::EventLoopIs(ioContext);
        std::make_unique<EventCall>(gone, [&] { order += '!'; })->in(0);
        gone = nullptr;
        ioContext.restart();
        ioContext.run();
    }
    EXPECT_EQ("abc", order);
}

} // namespace
