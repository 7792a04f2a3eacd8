#include "KeySearch.h"

#include <mox/Prefetch.h>

#include <algorithm>
#include <bit>

namespace KelKv {

namespace {

constexpr int hashBits = std::numeric_limits<std::size_t>::digits;
constexpr int shardBits = std::bit_width(Store::shards - 1);
constexpr int positionBits = std::bit_width(KeySearch::end - 1);
constexpr Mox::U64 positionsPerShard = KeySearch::end / Store::shards;

/// A key's shard, and behind it what else of its hash there is room for.
Mox::U64 positionOf(std::size_t hash) { return std::rotr(hash, shardBits) >> (hashBits - positionBits); }

} // namespace

/// Empty shards, of which a small store has thousands, share a step.
void KeySearch::step(Found const& found, std::size_t keysMax) {
    if (!longKeys_.empty())
        return matchLongKey(found);
    Mox::U64 const costMax = cost_ + stepCost;
    for (; position_ < end && shard().empty() && cost_ < costMax; cost_ += shardCost)
        position_ = lastOfShard() + 1;
    if (position_ < end && cost_ < costMax)
        visitPart(found, keysMax);
}

/// The most that matching, and copying what matched, may cost: a mismatch may begin the pattern again at each
/// of the key's bytes.
Mox::U64 KeySearch::costOf(std::string_view key) const {
    return pattern_ ? Mox::U64{pattern_->size() + 1} * (key.size() + 1) : 1;
}

Store::Shard const& KeySearch::shard() const {
    return store_.shard(static_cast<std::size_t>(position_ / positionsPerShard));
}

Mox::U64 KeySearch::lastOfShard() const { return position_ | (positionsPerShard - 1); }

/// The keys themselves are fetched meanwhile: matching them would wait for the memory, key by key.
KeySearch::Part KeySearch::part(Mox::U64 last) const {
    Part part{last};
    for (auto const& [key, value] : shard())
        if (Mox::U64 const position = positionOf(key.hash); position_ <= position && position <= last) {
            ++part.keys;
            part.cost += costOf(key.text);
            Mox::prefetch(key.text.data());
        }
    return part;
}

/// What one step visits: as a rule all of a shard. One that costs too much is cut by its keys' hashes, which
/// are spread evenly: a position in the table would be lost when it grows between two steps, and a list of
/// what was visited would be as long as the keys.
KeySearch::Part KeySearch::nextPart(std::size_t keysMax) const {
    Part next = part(lastOfShard());
    while ((next.cost > stepCost || next.keys > keysMax) && next.keys > 1 && next.last > position_) {
        Mox::U64 const parts = std::max({Mox::U64{2}, next.cost / stepCost, Mox::U64{next.keys / keysMax}});
        next = part(position_ + (next.last - position_) / parts);
    }
    return next;
}

void KeySearch::visitPart(Found const& found, std::size_t keysMax) {
    Part const part = nextPart(keysMax);
    Mox::Seconds const now = Mox::now();
    for (auto const& [key, value] : shard())
        if (Mox::U64 const position = positionOf(key.hash);
            position_ <= position && position <= part.last && value.due > now)
            visit(key.text, found);
    visited_ += part.keys;
    cost_ += part.cost;
    position_ = part.last + 1;
}

void KeySearch::visit(std::string_view key, Found const& found) {
    if (pattern_ && costOf(key) > stepCost) {
        longKeys_.emplace_back(*pattern_, key);
        kept_ += key.size();
    } else if (!pattern_ || *GlobMatch(*pattern_, key).step(std::string_view::npos))
        found(key);
}

/// A byte of a set takes some nanoseconds, where one that stands for itself takes a fraction of one.
void KeySearch::matchLongKey(Found const& found) {
    LongKey& key = longKeys_.front();
    std::optional<bool> const matches = key.match.step(stepCost / 4);
    cost_ += stepCost;
    if (matches == true)
        found(key.text);
    if (matches) {
        kept_ -= key.text.size();
        longKeys_.pop_front();
    }
}

} // namespace KelKv
