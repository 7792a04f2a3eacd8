// What a wheel does while nothing is due: the process sleeps.

#include <bench/Rows.h>
#include <bench/Timers.h>

#include <sys/resource.h>

namespace {

double sleeps() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_nvcsw);
}

} // namespace

int main(int argc, char** argv) {
    Bench::Options const options(argc, argv);
    constexpr unsigned far = 1000;
    Bench::OurTimers timers(far);
    std::vector<double> const times = Bench::randomTimes(far, 3600, 7200);
    for (std::uint32_t i = 0; i < far; ++i)
        timers.arm(i, times[i]);
    std::uint64_t const wakeupsBefore = timers.wheel->wakeups();
    double const sleepsBefore = sleeps();
    timers.runUntil(Bench::secondsNow() + 5.0);
    Bench::figure("wake-ups of a wheel in 5 s, all timers far", far,
                  static_cast<double>(timers.wheel->wakeups() - wakeupsBefore));
    Bench::figure("sleeps of its thread, one being the 5 s themselves", far, sleeps() - sleepsBefore);
}
