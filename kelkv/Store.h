#pragma once

#include "Expiry.h"
#include "LeastPass.h"
#include "SipHash.h"
#include "Text.h"

#include <group/TaskGroup.h>

#include <boost/unordered/unordered_flat_map.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace KelKv {

/// The keys and their values.
///
/// The table is cut into shards by the keys' hashes, each a small hash map; the hashes are this store's own,
/// so that no client can choose keys that crowd one. That bounds what one step costs:
/// only a shard's few hundred keys move when it grows, so that no SET has to move a million, and only they
/// are freed at a time. It also makes walking simple: a key changes neither its shard nor its hash, so a walk
/// that visits shard after shard, and in each the hashes in ascending ranges, each range in one step, sees
/// every key that is there throughout, and sees it once, whatever is written between its steps. It keeps
/// nothing but the shard and the hash where it goes on, and nobody has to tell it of a change.
class Store {
  public:
    static constexpr std::size_t shards = 4096;

    struct Value {
        Text text;
        Mox::Ptr<Expiry> expiry;           // null: for ever
        Mox::Seconds due = Mox::endOfTime; // the end of its life, by Mox::now(); the expiry may fall later
    };

    /// A key with its hash, which chooses the shard and the place in it, and is kept: neither a shard that
    /// grows nor a walk that goes by hashes reads a long key again.
    template <class Text> struct Hashed {
        Text text;
        std::size_t hash;
    };
    using Key = Hashed<std::string>;
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(auto const& key) const { return key.hash; }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(auto const& a, auto const& b) const { return a.hash == b.hash && a.text == b.text; }
    };
    using Shard = boost::unordered_flat_map<Key, Value, Hash, Equal>;

    Store(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Mox::Ptr<Scavenger> scavenger);
    /// What the scavenger has is freed, too.
    ~Store();

    /// Null when the key is not there or its time is over. Good until the next change of the store.
    Value* find(std::string_view key);
    /// Writes the key; it has no expiry then. Good until the next change of the store.
    Value& set(std::string_view key, Word const& word) { return set(key, Text(word, scavenger_)); }
    Value& set(std::string_view key, Text&& text);
    /// The value is another text from now on, and keeps its life.
    void textIs(Value& value, Text&& text);
    /// False when there was no such key.
    bool erase(std::string_view key);
    /// Takes everything out at once, in the time that it takes to go through the shards that have room; the
    /// memory is freed by and by.
    void clear();
    /// All keys, also those that are due and not erased yet.
    std::size_t size() const { return size_; }
    /// About so many bytes were let go of so far.
    Mox::U64 released() const { return released_; }
    /// Those of them that have an expiry.
    std::size_t expiring() const { return expiring_; }
    /// Keys whose time was over, since the store was made.
    Mox::U64 expired() const { return expired_; }
    /// The key of that number, in the order of walks; reads the sizes of all shards. Requires: less than
    /// `size()`.
    Key const& key(std::size_t number) const;

    /// The key's value lives until then.
    void dueIs(std::string_view key, Value& value, Mox::Seconds due);
    void expiryDel(Value& value);
    /// Erases the key if that is its expiry.
    void expire(std::string_view key, Expiry const& expiry);

    /// What chooses a key's shard, and its place in it, for as long as the store is there.
    std::size_t hashOf(std::string_view key) const { return static_cast<std::size_t>(hash_(key)); }
    /// For walks. Requires: less than `shards`.
    Shard const& shard(std::size_t number) const { return table_[number]; }

    /// Where the store leaves what is large.
    Mox::Ptr<Scavenger> const& scavenger() const { return scavenger_; }

  private:
    using KeyView = Hashed<std::string_view>;

    KeyView hashed(std::string_view key) const { return {key, hashOf(key)}; }
    Shard& shardOf(KeyView const& key) { return table_[key.hash % shards]; }
    bool erase(Shard& shard, Shard::iterator at);
    void leave(Text& text);

    // The expiries have a scheduler of their own, which is one task to the others, and one line in the
    // report: they may be a million, and they may fall all at once.
    Mox::Ptr<Kel::TaskGroup> const expiries_;
    Mox::Ptr<LeastPass> const expiriesGetOn_{new LeastPass(*expiries_)};
    Mox::Ptr<Scavenger> const scavenger_;
    SipHash<> const hash_{randomHashKey()};
    std::vector<Shard> table_;
    std::vector<std::uint16_t> taken_; // the shards that have room for keys
    std::size_t size_ = 0;
    std::size_t expiring_ = 0;
    Mox::U64 expired_ = 0;
    Mox::U64 released_ = 0;
};

} // namespace KelKv
