#define MOX_SOURCE_NAME "TraceHandleThreadsTest"
#include <mox/TraceHandle.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

TEST(TraceHandle, LevelsMayBeSwitchedWhileAnotherThreadTraces) {
    Mox::TraceHandle handle("Threads");
    std::atomic<int> traced = 0;
    handle.sinkIs([&](Mox::TraceRecord const&) { ++traced; });
    auto const work = [&] {
        for (Mox::U32 step = 0; step < 10'000; ++step) {
            handle.levelEnabledIs(step % 10, step % 3 != 0);
            MOX_TRACE_AT(handle, 2, "step " << step);
        }
    };
    std::thread first(work), second(work);
    first.join();
    second.join();
    EXPECT_GT(traced, 0);
}

} // namespace
