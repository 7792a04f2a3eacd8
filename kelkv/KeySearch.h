#pragma once

#include "GlobMatch.h"
#include "Store.h"

#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace KelKv {

/// Looks for the keys that match a pattern, in steps of bounded length between which the store may change.
///
/// A key that is there from the first step to the last is found, once; one that comes or goes meanwhile may
/// be found (see Store). Where a search goes on is one number, so that a client may keep it, and a search
/// that begins there later goes on as well.
///
/// Lifetime: the store outlives it.
class KeySearch {
  public:
    using Found = std::function<void(std::string_view key)>;

    /// What one step may cost, in bytes of key times bytes of pattern: some tens of microseconds.
    static constexpr Mox::U64 stepCost = 1 << 16;

    /// Behind the last position. The greatest that clients read as a number without loss, whatever they read
    /// it as.
    static constexpr Mox::U64 end = Mox::U64{1} << std::min(53, std::numeric_limits<std::size_t>::digits);

    /// Without a pattern every key is found, and its text not looked at.
    KeySearch(Store const& store, std::optional<std::string> pattern, Mox::U64 position = 0)
        : store_(store), pattern_(std::move(pattern)), position_(position) {}

    /// Visits so many keys at most, unless they cannot be told apart by their positions.
    void step(Found const& found, std::size_t keysMax = std::numeric_limits<std::size_t>::max());
    bool isDone() const { return position_ >= end && longKeys_.empty(); }

    /// Where to go on. Requires: no long key is under way.
    Mox::U64 position() const { return position_; }
    bool hasLongKey() const { return !longKeys_.empty(); }
    /// Keys that were visited so far, and what that cost.
    std::size_t visited() const { return visited_; }
    Mox::U64 cost() const { return cost_; }
    /// Bytes of keys and pattern that it keeps.
    std::size_t kept() const { return kept_ + (pattern_ ? pattern_->size() : 0); }

  private:
    /// The keys from `position_` to the last one, all of one shard.
    struct Part {
        Mox::U64 last;
        std::size_t keys = 0;
        Mox::U64 cost = shardCost;
    };
    /// A copy of a key that takes more than one step, which the store may lose meanwhile.
    struct LongKey {
        LongKey(std::string_view pattern, std::string_view key) : text(key), match(pattern, text) {}
        std::string const text;
        GlobMatch match;
    };

    static constexpr Mox::U64 shardCost = 4; // of one without a key

    Store::Shard const& shard() const;
    Mox::U64 lastOfShard() const;
    Part part(Mox::U64 last) const;
    Part nextPart(std::size_t keysMax) const;
    Mox::U64 costOf(std::string_view key) const;
    void visitPart(Found const& found, std::size_t keysMax);
    void visit(std::string_view key, Found const& found);
    void matchLongKey(Found const& found);

    Store const& store_;
    std::optional<std::string> const pattern_;
    Mox::U64 position_;
    std::deque<LongKey> longKeys_;
    std::size_t kept_ = 0;
    std::size_t visited_ = 0;
    Mox::U64 cost_ = 0;
};

} // namespace KelKv
