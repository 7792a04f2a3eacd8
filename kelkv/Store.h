#pragma once

#include "Expiry.h"
#include "Scavenger.h"

#include <group/TaskGroup.h>

#include <boost/unordered/unordered_flat_map.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace KelKv {

/// The keys and their values.
///
/// The table is cut into shards by the keys' hashes, each a small hash map. That bounds what one step costs:
/// only a shard's few hundred keys move when it grows, so that no SET has to move a million, and only they
/// are freed at a time. It also makes walking simple: a key never changes its shard, so a walk that visits
/// shard after shard, each in one step, sees every key that is there throughout, and sees it once, whatever
/// is written between its steps. It keeps nothing but the number of the shard where it goes on, and nobody
/// has to tell it of a change.
class Store {
  public:
    static constexpr std::size_t shards = 4096;

    struct Value {
        std::string text;
        Mox::Ptr<Expiry> expiry;           // null: for ever
        Mox::Seconds due = Mox::endOfTime; // the expiry's time, for those who walk a million keys
    };

    /// A key to look for; its hash chooses the shard and the place in it.
    struct HashedKey {
        explicit HashedKey(std::string_view key) : text(key), hash(std::hash<std::string_view>{}(key)) {}
        std::string_view text;
        std::size_t hash;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(HashedKey const& key) const { return key.hash; }
        std::size_t operator()(std::string_view key) const { return HashedKey(key).hash; }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const { return a == b; }
        bool operator()(HashedKey const& a, std::string_view b) const { return a.text == b; }
        bool operator()(std::string_view a, HashedKey const& b) const { return a == b.text; }
    };
    using Shard = boost::unordered_flat_map<std::string, Value, Hash, Equal>;

    explicit Store(Mox::Ptr<Kel::TaskScheduler> const& scheduler);

    /// Null when the key is not there or its time is over. Good until the next change of the store.
    Value* find(std::string_view key);
    /// Writes the key; it has no expiry then. Good until the next change of the store.
    Value& set(std::string_view key, std::string_view text);
    /// False when there was no such key.
    bool erase(std::string_view key);
    /// Takes everything out at once; the memory is freed by and by.
    void clear();
    /// All keys, also those that are due and not erased yet.
    std::size_t size() const { return size_; }

    /// The key's value lives so much longer. Requires: more than 0 seconds.
    void expiryIs(std::string_view key, Value& value, Mox::Seconds delay);
    void expiryDel(Value& value);
    /// Erases the key if that is its expiry.
    void expire(std::string_view key, Expiry const& expiry);

    /// For walks. Requires: less than `shards`.
    Shard const& shard(std::size_t number) const { return table_[number]; }

  private:
    Shard& shardOf(HashedKey const& key) { return table_[key.hash % shards]; }
    void erase(Shard& shard, Shard::iterator at);

    // The expiries have a scheduler of their own, which is one task to the others, and one line in the
    // report: they may be a million, and they may fall all at once.
    Mox::Ptr<Kel::TaskGroup> const expiries_;
    std::vector<Shard> table_;
    std::size_t size_ = 0;
    Mox::Ptr<Scavenger<Shard>> const scavenger_;
};

} // namespace KelKv
