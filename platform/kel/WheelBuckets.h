#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>

#include <boost/intrusive/list.hpp>

#include <limits>
#include <vector>

namespace Kel {

/// A timer's place in a wheel: the tick it is filed under, and its link.
class WheelEntry {
  public:
    bool isLinked() const { return hook_.is_linked(); }
    Mox::S64 tick() const { return tick_; }

  protected:
    WheelEntry() = default;
    ~WheelEntry() = default;

  private:
    friend class WheelBuckets;
    using Hook =
        boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

    Hook hook_;
    Mox::S64 tick_ = 0;
};

/// The placing of a hashed timing wheel (Varghese and Lauck, "Hashed and Hierarchical Timing Wheels", 1987,
/// scheme 6): an entry is filed under an absolute 64-bit tick, in the bucket of the tick's low bits. It knows
/// no clock and calls nobody.
///
/// Each bucket keeps the smallest tick in it, so that the next tick of the wheel is one scan over the
/// buckets, cached. Removing an entry leaves those minima as they are: a lower bound, which costs one early
/// look.
class MOX_EXPORT WheelBuckets {
  public:
    using Entries = boost::intrusive::list<
        WheelEntry, boost::intrusive::member_hook<WheelEntry, WheelEntry::Hook, &WheelEntry::hook_>,
        boost::intrusive::constant_time_size<false>>;

    static constexpr Mox::S64 never = std::numeric_limits<Mox::S64>::max();

    /// The number of buckets is rounded up to a power of two.
    explicit WheelBuckets(Mox::U32 buckets);

    Mox::U64 size() const { return size_; }

    /// Requires: the entry is not linked; tick < never.
    void insert(WheelEntry& entry, Mox::S64 tick) {
        Bucket& bucket = bucketOf(tick);
        entry.tick_ = tick;
        bucket.entries.push_back(entry);
        ++size_;
        Mox::S64& least = leastTicks_[indexOf(tick)];
        least = std::min(least, tick);
        next_ = std::min(next_, tick);
    }

    /// Takes the entry out of its bucket, or out of a list that `take` filled. Requires: the entry is linked.
    ///
    /// The only one in a bucket is told by its own link, which is at hand: both its neighbours are the
    /// bucket's end.
    void remove(WheelEntry& entry) {
        auto const node = Entries::value_traits::to_node_ptr(entry);
        bool const isOnly = Entries::node_traits::get_next(node) == Entries::node_traits::get_previous(node);
        entry.hook_.unlink();
        --size_;
        if (isOnly && entry.tick_ != never)
            emptied(entry.tick_);
    }

    /// Takes out the first of the entries that `take` moved; they still count as held.
    WheelEntry& removeFront(Entries& taken) {
        WheelEntry& front = taken.front();
        remove(front);
        return front;
    }

    /// No entry is filed under an earlier tick; never when there is none.
    Mox::S64 next() {
        if (nextIsStale_)
            findNext();
        return next_;
    }

    /// Moves the entries filed under `next()` to the end of `taken`, at most `most` of them, and returns how
    /// many. They are filed under `never` meanwhile, and stay counted until they are removed.
    Mox::U32 take(Entries& taken, Mox::U32 most);

  private:
    struct Bucket {
        Entries entries;
    };

    std::size_t indexOf(Mox::S64 tick) const { return static_cast<std::size_t>(tick) & mask_; }
    Bucket& bucketOf(Mox::S64 tick) { return buckets_[indexOf(tick)]; }
    void findNext();
    void emptied(Mox::S64 tick) {
        leastTicks_[indexOf(tick)] = never;
        nextIsStale_ = true;
    }

    std::size_t const mask_;
    std::vector<Bucket> buckets_;
    std::vector<Mox::S64> leastTicks_; // beside the buckets, so that a scan reads them densely
    Mox::S64 next_ = never;
    bool nextIsStale_ = false;
    Mox::U64 size_ = 0;
};

} // namespace Kel
