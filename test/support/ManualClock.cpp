#include <support/ManualClock.h>

#include <mox/Assert.h>

#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

using TestSupport::ManualClock;

/// The calling thread's clock, as far as it is taken in hand.
struct State {
    bool manual = false;
    ManualClock::Duration now{};
    ManualClock::Duration perReading{};
    std::uint64_t readings = 0;
};

constinit thread_local State state;

timespec read() {
    ManualClock::Duration const reading = state.now;
    state.now += state.perReading;
    ++state.readings;
    auto const seconds = std::chrono::floor<std::chrono::seconds>(reading);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((reading - seconds).count())};
}

} // namespace

/// Stands before the system's own. Visible to the shared libraries of the process, whose clocks follow too.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC || !state.manual)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = read();
    return 0;
}

namespace TestSupport {

ManualClock::ManualClock(Duration start) {
    MOX_ASSERT_AS("no other ManualClock on this thread", !state.manual);
    state = {.manual = true, .now = start};
}

ManualClock::~ManualClock() { state = {}; }

ManualClock::Duration ManualClock::now() const { return state.now; }

void ManualClock::nowIs(Duration time) { state.now = time; }

void ManualClock::perReadingIs(Duration duration) { state.perReading = duration; }

std::uint64_t ManualClock::readings() const { return state.readings; }

} // namespace TestSupport
