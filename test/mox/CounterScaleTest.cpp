#include <mox/CounterScale.h>

#include <support/Random.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace {

using namespace Mox;
using State = CounterScale::State;

constexpr double ticksPerNanosecond = 2.1;
constexpr S64 second = 1'000'000'000, goodFor = CounterScale::goodFor;

/// What is read at a moment, in nanoseconds, and how far from the clock a reading may be.
struct Machine {
    char const* name;
    std::function<double(S64 moment)> counter; // in nanoseconds of its own
    S64 error;
    State end = State::known;
    std::function<S64(S64 moment)> clock = [](S64 moment) { return moment; };
    S64 pause = 0; // at two seconds
};

/// From two seconds on.
auto after(std::function<double(S64 moment)> more) {
    return [more](S64 moment) {
        return static_cast<double>(moment) + (moment < 2 * second ? 0.0 : more(moment - 2 * second));
    };
}
auto constant(double more) {
    return after([more](S64) { return more; });
}
auto steered(double part) {
    return [part](S64 moment) {
        return moment + static_cast<S64>(part * static_cast<double>(std::max<S64>(moment - 2 * second, 0)));
    };
}

} // namespace

TEST(CounterScale, FollowsTheClockNeverGoesBackAndIsGivenUpWhereTheCounterIsWrong) {
    TestSupport::Random random;
    auto const even = constant(0);
    auto const behindOnOneCore = [](double by) {
        return after([by](S64 since) { return since / 700'000 % 2 == 0 ? 0 : -by; });
    };
    for (Machine const& machine : std::initializer_list<Machine>{
             {"even", even, 100},
             {"pauses", even, 100, State::known, steered(0), 3600 * second},
             {"the clock goes faster", even, 1000, State::known, steered(0.0005)},
             {"and more slowly", even, 1000, State::known, steered(-0.0005)},
             {"another core's is behind", behindOnOneCore(5000), 5100},
             {"by much", behindOnOneCore(20'000), 20'100, State::departed},
             {"jumps", constant(1e5), 110'000, State::departed},
             {"back", constant(-1e5), 110'000, State::departed},
             {"is set to zero", after([](S64) { return -2e9; }), 100, State::departed},
             {"stands still", after([](S64 s) { return -static_cast<double>(std::min(s, 3 * goodFor)); }),
              4 * goodFor, State::departed},
             {"goes on while the clock does not", even, 2 * goodFor, State::departed,
              [](S64 m) { return m < 2 * second ? m : std::max(2 * second, m - second); }},
             {"too slow", [](S64 m) { return static_cast<double>(m) * 0.4; }, 0, State::departed}}) {
        CounterScale scale;
        State state = State::learning;
        S64 latest = 0;
        bool isBefore = true;
        int bindings = 0;
        for (S64 moment = 1; moment < 4 * second + machine.pause && state != State::departed;) {
            auto const ticks = static_cast<U64>(1e6 + machine.counter(moment) * ticksPerNanosecond);
            S64 const time = machine.clock(moment);
            S64 reading = std::max(latest, time);
            if (scale.covers(ticks))
                reading = std::max(latest, scale.at(ticks));
            else
                state = scale.bind({ticks, time}, latest), ++bindings;
            ASSERT_TRUE(state == State::departed || std::abs(reading - time) <= machine.error)
                << machine.name << " at " << moment << ": " << reading - time;
            ASSERT_LE(latest, reading);
            latest = reading;
            bool const pauses = std::exchange(isBefore, moment < 2 * second) && moment >= 2 * second;
            moment += (pauses ? machine.pause : 0) + 1 + static_cast<S64>(random.below(300'000));
        }
        EXPECT_EQ(state, machine.end) << machine.name;
        EXPECT_LT(bindings, 5000) << machine.name;
    }
    CounterScale scale; // what the system takes away between two readings is no fault of the counter
    for (S64 time = second; time < 2 * second; time += goodFor) {
        U64 const late = time % (7 * goodFor) == 0 ? 900'000 : 0;
        State const state = scale.bind({2 * static_cast<U64>(time) + late, time, 5000 + late}, 0);
        ASSERT_EQ(state, late > 0                       ? State::unsure
                         : time < second + 10 * goodFor ? State::learning
                                                        : State::known);
    }
}
