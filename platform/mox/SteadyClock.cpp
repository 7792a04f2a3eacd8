#include <mox/SteadyClock.h>

#include <mox/TraceHandle.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string_view>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace Mox {

constinit std::atomic<SteadyClock::Mode> SteadyClock::mode_ = SteadyClock::Mode::posix;
constinit thread_local SteadyClock::Thread SteadyClock::thread_;

namespace {

constexpr U32 unsureMost = 1000; // bindings in a row
constexpr U64 withinUsually = CounterScale::withinMost / 10;

/// Why the counter was given up; set before the mode tells that it was.
constinit std::atomic<char const*> departure{nullptr};

void trace(std::string_view text) noexcept {
    try {
        TraceHandle::traceHandle("Mox").record(0, "SteadyClock", "source", text);
    } catch (...) { // a sink that fails has nobody to tell
    }
}

/// Intel SDM volume 3, 17.17.1; AMD APM volume 3, appendix E: leaf 80000007H, EDX bit 8.
bool isInvariant() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d >> 8 & 1) != 0;
#else
    return false;
#endif
}

/// What the kernel found wrong it leaves out of the list.
bool isTrusted() {
    std::ifstream list("/sys/devices/system/clocksource/clocksource0/available_clocksource");
    return std::find(std::istream_iterator<std::string>(list), {}, "tsc") !=
           std::istream_iterator<std::string>();
}

/// Whether what programs call is in another module than the C library's other functions.
bool isInterposed() {
    Dl_info called{}, own{};
    void* const function = dlsym(RTLD_DEFAULT, "clock_gettime");
    return !function || dladdr(function, &called) == 0 ||
           dladdr(dlsym(RTLD_DEFAULT, "__libc_start_main"), &own) == 0 || called.dli_fbase != own.dli_fbase;
}

Problem problemOfCounter() {
    if (!isInvariant())
        return "the processor has no invariant time-stamp counter";
    if (!isTrusted())
        return "the kernel does not list the time-stamp counter among its clock sources";
    if (isInterposed())
        return "clock_gettime is interposed";
    return {};
}

} // namespace

Problem SteadyClock::sourceIs(Source source) {
    if (source == Source::posix) {
        Mode counter = Mode::counter; // and no other
        mode_.compare_exchange_strong(counter, Mode::posixAgain);
        return {};
    }
    Problem problem = problemOfCounter();
    if (problem.empty() && readBoth().within > CounterScale::withinMost)
        problem = "reading the POSIX clock takes too long";
    for (Mode mode = mode_; problem.empty() && mode != Mode::counter;)
        if (mode == Mode::departing || mode == Mode::departed)
            problem = "the time-stamp counter was given up before";
        else
            mode_.compare_exchange_weak(mode, Mode::counter);
    return problem;
}

void SteadyClock::giveUp(char const* reason) noexcept {
    char const* none = nullptr;
    if (departure.compare_exchange_strong(none, reason))
        mode_ = Mode::departing;
}

void SteadyClock::tellDeparted() noexcept {
    Mode departing = Mode::departing;
    if (mode_.compare_exchange_strong(departing, Mode::departed))
        trace(departure.load());
}

/// Of some tries the first in which no more time passed than usually, or the best: the thread may be stopped
/// within one.
CounterScale::Pair SteadyClock::readBoth() noexcept {
    CounterScale::Pair best{0, 0, ~U64{0}};
    for (int tries = 0; tries < 3 && best.within > withinUsually; ++tries) {
        U64 const before = counterNow();
        S64 const time = posixNow();
        U64 const within = counterNow() - before;
        if (within < best.within)
            best = {before + within / 2, time, within};
    }
    return best;
}

/// Where the thread's latest reading was ahead, that one.
S64 SteadyClock::bound() noexcept {
    Thread& thread = thread_;
    if (mode_ != Mode::counter)
        return std::max(thread.latest, posixNow());
    CounterScale::Pair const pair = readBoth();
    CounterScale::State const state = thread.scale.bind(pair, thread.latest);
    thread.unsure = state == CounterScale::State::unsure ? thread.unsure + 1 : 0;
    if (state == CounterScale::State::departed)
        giveUp("the time-stamp counter departs from the POSIX clock, which is read again");
    else if (thread.unsure > unsureMost)
        giveUp("reading the POSIX clock takes too long to bind the counter to it, which is given up");
    return std::max(thread.latest, pair.time);
}

namespace {

/// For programs that know nothing of it.
[[maybe_unused]] bool const isAsked = [] {
    char const* const asked = std::getenv("KELTASK_CLOCK");
    if (!asked || std::string_view(asked) != "fast")
        return false;
    Problem const problem = SteadyClock::sourceIs(SteadyClock::Source::counter);
    if (!problem.empty())
        trace("KELTASK_CLOCK=fast: " + problem);
    return problem.empty();
}();

} // namespace

} // namespace Mox
