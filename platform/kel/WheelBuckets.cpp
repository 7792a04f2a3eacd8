#define MOX_SOURCE_NAME "WheelBuckets"
#include <kel/WheelBuckets.h>

#include <mox/Assert.h>

#include <algorithm>
#include <bit>

namespace Kel {

WheelBuckets::WheelBuckets(Mox::U32 buckets)
    : mask_(std::bit_ceil(std::size_t{buckets}) - 1), buckets_(mask_ + 1), leastTicks_(mask_ + 1, never) {
    MOX_ASSERT(buckets > 0);
}

/// A scan over all buckets, which lie side by side for it; put off until somebody asks, so that many removals
/// in a row cost one.
void WheelBuckets::findNext() {
    next_ = *std::ranges::min_element(leastTicks_);
    nextIsStale_ = false;
}

/// The bucket is gone through anyway, so its exact minimum comes out of it. Where the walk stops early, the
/// rest is not looked at, and this tick stays the bound for it.
Mox::U32 WheelBuckets::take(Entries& taken, Mox::U32 most) {
    Mox::S64 const tick = next();
    if (tick == never)
        return 0;
    Entries& entries = bucketOf(tick).entries;
    Mox::S64 least = never;
    Mox::U32 count = 0;
    for (auto at = entries.begin(); at != entries.end();) {
        if (count == most) {
            least = tick;
            break;
        }
        WheelEntry& entry = *at++;
        if (entry.tick_ != tick) {
            least = std::min(least, entry.tick_);
            continue;
        }
        entry.hook_.unlink();
        entry.tick_ = never;
        taken.push_back(entry);
        ++count;
    }
    leastTicks_[indexOf(tick)] = least;
    nextIsStale_ = true;
    return count;
}

} // namespace Kel
