#include <kel/EventLoopTimerWheel.h>

#include <mox/TraceHandle.h>

#include <support/Calls.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using Mox::Ptr;
using Timer = TestSupport::TimerCall<Kel::TimerWheel::NotifieeConst>;

/// A loop of the thread's own with a wheel whose timers re-arm themselves, under the thread's virtual clock.
/// Returns the order in which they were called.
std::vector<int> loopOfOneThread(Mox::TraceHandle& handle) {
    TestSupport::VirtualTime const time(true);
    Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Ptr<Kel::TimerWheel> const wheel =
        Kel::EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, nullptr, 10, 8640000, true, 1024, loop);
    std::vector<int> order;
    std::vector<Ptr<Timer>> timers;
    for (int number = 1; number <= 20; ++number)
        timers.push_back(new Timer(wheel, [&, number] {
            order.push_back(number);
            handle.levelEnabledIs(static_cast<Mox::U32>(number % 10), number % 2 == 0);
            MOX_TRACE_AT(handle, 2, "timer " << number);
            timers[static_cast<std::size_t>(number - 1)]->timeMinIs(Mox::now() + 0.01 * number);
        }));
    for (auto const& timer : timers)
        timer->timeMinIs(0.0);
    loop->runUntil(20.0);
    return order;
}

TEST(Loops, RunSideBySideOneAThread) {
    Mox::TraceHandle handle("Loops");
    std::atomic<int> traced = 0;
    handle.sinkIs([&](Mox::TraceRecord const&) { ++traced; });
    std::array<std::vector<int>, 2> orders;
    std::thread first([&] { orders[0] = loopOfOneThread(handle); });
    std::thread second([&] { orders[1] = loopOfOneThread(handle); });
    first.join();
    second.join();
    EXPECT_GT(orders[0].size(), 1000u);
    EXPECT_EQ(orders[0], orders[1]);
    EXPECT_GT(traced, 0);
}

} // namespace
