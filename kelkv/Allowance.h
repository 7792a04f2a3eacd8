#pragma once

#include <mox/SteadyClock.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace KelKv {

/// How much a client may ask and be told ahead of others, in bytes: a token bucket. What is spent beyond it
/// is owed, for a second's worth at most.
///
/// Bytes and not time, as a turn's time is the machine's, too: a client that asks little is not to be put
/// behind those that ask much because an interrupt fell into its turn.
class Allowance {
  public:
    static constexpr std::size_t burst = 1 << 12;
    static constexpr std::size_t perSecond = 1 << 14;

    void spend(std::size_t bytes) {
        refill();
        left_ = std::max(left_ - static_cast<double>(bytes), -double{perSecond});
    }
    /// But for a rest that time alone would bring back within a turn or two.
    bool isSpent() {
        refill();
        return left_ < double{burst / 8};
    }

  private:
    void refill() {
        auto const now = Mox::SteadyClock::latest();
        boost::chrono::duration<double> const since = now - std::exchange(at_, now);
        left_ = std::min(left_ + std::max(since.count(), 0.0) * perSecond, double{burst});
    }

    double left_ = double{burst};
    Mox::SteadyClock::TimePoint at_ = Mox::SteadyClock::latest();
};

} // namespace KelKv
