#include <mox/CounterScale.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace Mox {

namespace {

constexpr S64 measuredFirst = 10'000'000; // nanoseconds
constexpr S64 measured = 500'000'000;
// A tick of a nanosecond is more than the rate holds; counters that are of use are faster.
constexpr double longestTick = 0.999;

/// A counter that was set back is some ticks behind.
double ticksSince(CounterScale::Pair const& earlier, CounterScale::Pair const& later) {
    return static_cast<double>(static_cast<S64>(later.ticks - earlier.ticks));
}

double timeSince(CounterScale::Pair const& earlier, CounterScale::Pair const& later) {
    return static_cast<double>(later.time - earlier.time);
}

} // namespace

CounterScale::State CounterScale::bind(Pair const& pair, S64 latest) {
    if (pair.within > withinMost)
        return State::unsure;
    if (nanoseconds_ > 0 && !isExpected(pair))
        return State::departed;
    measureRate(pair);
    last_ = pair;
    if (nanoseconds_ <= 0)
        return State::learning;
    if (nanoseconds_ > longestTick)
        return State::departed;
    S64 const ahead = std::max<S64>(latest - pair.time, 0);
    double const slower = static_cast<double>(std::min(ahead, goodFor / 2)) / static_cast<double>(goodFor);
    begin_ = {pair.ticks, pair.time + ahead};
    span_ = static_cast<U64>(static_cast<double>(goodFor) / nanoseconds_);
    rate_ = static_cast<U32>(std::ldexp(nanoseconds_ * (1.0 - slower), rateBits));
    return State::known;
}

bool CounterScale::isExpected(Pair const& pair) const {
    double const passed = timeSince(last_, pair);
    double const error = passed - ticksSince(last_, pair) * nanoseconds_;
    return std::abs(error) <= departure + std::abs(passed) / departurePerTime;
}

/// From the one before the latest of those that lie so far apart: over one such time at least, two at most.
void CounterScale::measureRate(Pair const& pair) {
    bool const isFirst = last_.ticks == 0 && last_.time == 0;
    if (isFirst)
        measuredFrom_ = measuredFromNext_ = pair;
    if (pair.time - measuredFromNext_.time >= measured)
        measuredFrom_ = std::exchange(measuredFromNext_, pair);
    if (pair.time - measuredFrom_.time >= measuredFirst)
        nanoseconds_ = timeSince(measuredFrom_, pair) / ticksSince(measuredFrom_, pair);
}

} // namespace Mox
