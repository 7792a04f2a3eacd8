#include <support/ManualClock.h>

#include <mox/Assert.h>

#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

using TestSupport::ManualClock;

/// Stands before the system's own. Visible to the shared libraries of the process, whose clocks follow too.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC || !ManualClock::state.manual)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    ManualClock::State& state = ManualClock::state;
    auto const seconds = std::chrono::floor<std::chrono::seconds>(state.now);
    *time = {static_cast<time_t>(seconds.count()), static_cast<long>((state.now - seconds).count())};
    state.now += state.perReading;
    ++state.readings;
    return 0;
}

namespace TestSupport {

constinit thread_local ManualClock::State ManualClock::state;

ManualClock::ManualClock(Duration start) {
    MOX_ASSERT_AS("no other ManualClock on this thread", !state.manual);
    state = {.manual = true, .now = start};
}

} // namespace TestSupport
