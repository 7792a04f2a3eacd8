#pragma once

#include <mox/Assert.h>
#include <mox/Integers.h>
#include <mox/String.h>

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

namespace Mox {

/// A key's hash: its own `hash()` where it has one, the address of a pointer, the ticks of a time or a
/// duration, the bytes of a string.
template <class K> U32 hash(K const& key) {
    if constexpr (requires { key.hash(); })
        return static_cast<U32>(key.hash());
    else if constexpr (std::is_pointer_v<K>)
        return static_cast<U32>(reinterpret_cast<std::uintptr_t>(key));
    else if constexpr (requires { key.time_since_epoch(); })
        return hash(key.time_since_epoch());
    else if constexpr (requires { typename K::period; })
        return static_cast<U32>(key.count());
    else
        return static_cast<U32>(std::hash<std::string_view>{}(key));
}

/// A key's place in map order: its hash bit-reversed, then spread, since addresses are multiples of 16 and
/// would leave most buckets unused. The spread is the 32-bit finalizer of MurmurHash3 (Austin Appleby), a
/// bijection: keys of different hash keep different codes.
constexpr U32 hashOrderOf(U32 code) {
    code = (code >> 1 & 0x55555555u) | (code & 0x55555555u) << 1;
    code = (code >> 2 & 0x33333333u) | (code & 0x33333333u) << 2;
    code = (code >> 4 & 0x0f0f0f0fu) | (code & 0x0f0f0f0fu) << 4;
    code = __builtin_bswap32(code);
    code = (code ^ code >> 16) * 0x85ebca6bu;
    code = (code ^ code >> 13) * 0xc2b2ae35u;
    return code ^ code >> 16;
}
template <class K> U32 hashOrder(K const& key) {
    constexpr auto fewest = [] { // priorities among them, which each task that comes or goes counts
        std::array<U32, 8> codes{};
        for (U32 i = 0; i < codes.size(); ++i)
            codes[i] = hashOrderOf(i);
        return codes;
    }();
    U32 const code = hash(key);
    return code < fewest.size() ? fewest[code] : hashOrderOf(code);
}

/// Whether a is before b in map order.
template <class K> bool inMapOrder(K const& a, K const& b) {
    U32 const codeOfA = hashOrder(a), codeOfB = hashOrder(b);
    return codeOfA != codeOfB ? codeOfA < codeOfB : a < b;
}

/// A hash table over nodes that hold their own link, so that it allocates only its buckets.
///
/// The bucket of a node is the top bits of its order code, chains are sorted by (code, key): the order of a
/// walk is that of (code, key) whatever the number of buckets, and survives growth. A walk across foreign
/// code holds a key and resumes with `from(key)`, never a node.
///
/// Growing takes no insertion much longer than others: it doubles the buckets, and each insertion from then
/// on deals out the chains of a few old ones, from the first on, which is through long before the table is
/// full again. So codes up to a bound have their chains in the new buckets, and those above in the old ones.
///
/// Traits names `Key` and `Node` and gives `key(node)`, `code(node)` and a reference `next(node)`.
template <class Traits> class HashTable {
  public:
    using Key = typename Traits::Key;
    using Node = typename Traits::Node;

    HashTable() = default;
    HashTable(HashTable const&) = delete;
    HashTable& operator=(HashTable const&) = delete;

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    /// By a key, or by a view of one, which has the same hash.
    template <class Sought> Node* find(Sought const& key) const {
        Node* const node = lowerBound(key);
        return node && Traits::key(*node) == key ? node : nullptr;
    }

    /// Requires: no node of that key is there.
    void insert(Node* node) {
        bool const isNew = insertNew(node);
        MOX_ASSERT_IN("HashMap", "no node of that key is there", isNew);
    }

    /// False when a node of that key is there; nothing happens then.
    bool insertNew(Node* node) {
        if (size_ == buckets_.size())
            grow();
        for (int i = 0; i < dealtPerInsertion && isGrowing(); ++i)
            dealOne();
        Node** const place = placeOf(Traits::code(*node), Traits::key(*node));
        if (*place && Traits::key(**place) == Traits::key(*node))
            return false;
        Traits::next(*node) = *place;
        *place = node;
        ++size_;
        return true;
    }

    /// The node of that key, taken out; null when there is none.
    Node* remove(Key const& key) {
        if (buckets_.size() == 0)
            return nullptr;
        Node** const place = placeOf(hashOrder(key), key);
        Node* const node = *place;
        if (!node || !(Traits::key(*node) == key))
            return nullptr;
        *place = Traits::next(*node);
        Traits::next(*node) = nullptr;
        --size_;
        return node;
    }

    void swap(HashTable& other) noexcept {
        std::swap(buckets_, other.buckets_);
        std::swap(old_, other.old_);
        std::swap(dealt_, other.dealt_);
        std::swap(size_, other.size_);
        std::swap(shift_, other.shift_);
    }

    Node* first() const { return firstFrom(0); }
    Node* after(Node const* node) const {
        Node* const next = Traits::next(*const_cast<Node*>(node));
        return next ? next : firstFrom(behindBucketOf(Traits::code(*node)));
    }
    /// The first node not before that key, whether or not the key is there.
    Node* from(Key const& key) const {
        if (buckets_.size() == 0)
            return nullptr;
        Node* const node = lowerBound(key);
        return node ? node : firstFrom(behindBucketOf(hashOrder(key)));
    }
    /// The first node behind that key, whether or not the key is there: where a walk goes on that knows of
    /// the last node only its key.
    Node* behind(Key const& key) const {
        Node* const node = from(key);
        return node && Traits::key(*node) == key ? after(node) : node;
    }

  private:
    static constexpr int dealtPerInsertion = 4;
    static constexpr std::size_t fewestBuckets = 8;
    static_assert(std::has_single_bit(fewestBuckets) &&
                  fewestBuckets > 1); // a code is shifted by less than 32

    /// The heads of chains. Of many, the system gives pages that are zero as they are touched.
    class Buckets {
      public:
        Buckets() = default;
        explicit Buckets(std::size_t size)
            : heads_(static_cast<Node**>(std::calloc(size, sizeof(Node*)))), size_(size) {
            if (!heads_)
                throw std::bad_alloc();
        }
        std::size_t size() const { return size_; }
        Node*& operator[](std::size_t i) const { return heads_.get()[i]; }

      private:
        struct Free {
            void operator()(Node** heads) const { std::free(heads); }
        };
        std::unique_ptr<Node*, Free> heads_;
        std::size_t size_ = 0;
    };

    bool isGrowing() const { return old_.size() > 0; }
    std::size_t bucketOf(U32 code) const { return static_cast<std::size_t>(code) >> shift_; }
    /// Whether the chain of that bucket is still in the old one.
    bool isOld(std::size_t bucket) const { return isGrowing() && bucket / 2 >= dealt_; }
    std::size_t behindBucketOf(U32 code) const {
        std::size_t const bucket = bucketOf(code);
        return isOld(bucket) ? (bucket | 1) + 1 : bucket + 1;
    }
    Node*& headOf(std::size_t bucket) const { return isOld(bucket) ? old_[bucket / 2] : buckets_[bucket]; }

    /// Of two buckets whose chain is an old one, the first stands for both.
    Node* firstFrom(std::size_t bucket) const {
        if (size_ == 0)
            return nullptr;
        for (; bucket < buckets_.size(); bucket += isOld(bucket) ? 2u : 1u)
            if (Node* const head = headOf(bucket))
                return head;
        return nullptr;
    }

    /// Within the key's bucket only.
    template <class Sought> Node* lowerBound(Sought const& key) const {
        return buckets_.size() == 0 ? nullptr : *placeOf(hashOrder(key), key);
    }

    /// The link that points, or would point, at the first node of the bucket not before (code, key).
    template <class Sought> Node** placeOf(U32 code, Sought const& key) const {
        Node** place = &headOf(bucketOf(code));
        while (*place && before(**place, code, key))
            place = &Traits::next(**place);
        return place;
    }
    template <class Sought> static bool before(Node& node, U32 code, Sought const& key) {
        if constexpr (std::is_trivially_copyable_v<Key>)
            if (Traits::key(node) == key)
                return false; // told sooner than by its code
        U32 const own = Traits::code(node);
        return own != code ? own < code : Traits::key(node) < key;
    }

    /// By then the old buckets are dealt out: there were as many insertions as there are of them.
    void grow() {
        Buckets larger(std::max(fewestBuckets, 2 * buckets_.size()));
        old_ = std::exchange(buckets_, std::move(larger));
        dealt_ = 0;
        shift_ = 32 - static_cast<U32>(std::countr_zero(buckets_.size()));
    }

    /// In order, so that the new chains are in order too.
    void dealOne() {
        Node* chain = old_[dealt_++];
        Node** tail[2] = {nullptr, nullptr};
        while (chain) {
            std::size_t const bucket = bucketOf(Traits::code(*chain));
            Node**& end = tail[bucket & 1];
            if (!end)
                end = &buckets_[bucket];
            *end = chain;
            end = &Traits::next(*chain);
            chain = std::exchange(Traits::next(*chain), nullptr);
        }
        if (dealt_ == old_.size())
            old_ = Buckets();
    }

    Buckets buckets_; // none until the first insertion, then a power of two
    Buckets old_;     // half as many, while the table grows
    std::size_t dealt_ = 0;
    std::size_t size_ = 0;
    U32 shift_ = 0; // from a code to its bucket
};

/// A hash map that owns its entries, in the order that HashTable states. Pointers and references to an entry
/// stay good until that entry is erased.
template <class K, class V> class HashMap {
    struct Node {
        Node(K const& key, V value) : code(hashOrder(key)), entry(key, std::move(value)) {}
        Node* next = nullptr;
        U32 code;
        std::pair<K const, V> entry;
    };
    struct Traits {
        using Key = K;
        using Node = HashMap::Node;
        static K const& key(Node const& node) { return node.entry.first; }
        static U32 code(Node const& node) { return node.code; }
        static Node*& next(Node& node) { return node.next; }
    };
    using Table = HashTable<Traits>;

  public:
    /// Good until its entry is erased.
    class IteratorConst {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::pair<K const, V>;
        using difference_type = std::ptrdiff_t;
        using pointer = value_type const*;
        using reference = value_type const&;

        IteratorConst() = default;
        reference operator*() const { return node_->entry; }
        pointer operator->() const { return &node_->entry; }
        IteratorConst& operator++() {
            node_ = table_->after(node_);
            return *this;
        }
        IteratorConst operator++(int) {
            IteratorConst const old = *this;
            ++*this;
            return old;
        }
        friend bool operator==(IteratorConst const& a, IteratorConst const& b) { return a.node_ == b.node_; }

      private:
        friend class HashMap;
        IteratorConst(Table const* table, Node* node) : table_(table), node_(node) {}
        Table const* table_ = nullptr;
        Node* node_ = nullptr;
    };

    HashMap() = default;
    HashMap(HashMap const& other) { *this = other; }
    HashMap(HashMap&&) = delete;
    HashMap& operator=(HashMap const& other) {
        if (this != &other) {
            clear();
            for (auto const& [key, value] : other)
                valueIs(key, value);
        }
        return *this;
    }
    ~HashMap() { clear(); }

    std::size_t size() const { return table_.size(); }
    bool empty() const { return table_.empty(); }

    IteratorConst begin() const { return {&table_, table_.first()}; }
    IteratorConst end() const { return {&table_, nullptr}; }
    /// The first entry not before that key, whether or not the key is there.
    IteratorConst iteratorFrom(K const& key) const { return {&table_, table_.from(key)}; }
    /// The first entry behind that key, whether or not the key is there.
    IteratorConst iteratorBehind(K const& key) const { return {&table_, table_.behind(key)}; }

    V const* find(K const& key) const { return const_cast<HashMap*>(this)->find(key); }
    V* find(K const& key) {
        Node* const node = table_.find(key);
        return node ? &node->entry.second : nullptr;
    }

    /// The same for a name that is not at hand as a string.
    template <std::same_as<std::string_view> View> V* find(View key) {
        Node* const node = table_.find(key);
        return node ? &node->entry.second : nullptr;
    }

    /// Inserts the value or replaces the one that is there; returns where it stands.
    V& valueIs(K const& key, V value) {
        if (V* const there = find(key))
            return *there = std::move(value);
        auto node = std::make_unique<Node>(key, std::move(value));
        table_.insert(node.get());
        return node.release()->entry.second;
    }

    /// The same; false when that value is there already.
    bool change(K const& key, V const& value) {
        V* const there = find(key);
        if (there && *there == value)
            return false;
        if (there)
            *there = value;
        else
            valueIs(key, value);
        return true;
    }

    /// Takes an entry out and returns its value; nothing when there is none.
    std::optional<V> take(K const& key) {
        std::unique_ptr<Node> const node(table_.remove(key));
        return node ? std::optional(std::move(node->entry.second)) : std::nullopt;
    }
    bool erase(K const& key) { return std::unique_ptr<Node>(table_.remove(key)) != nullptr; }

    void swap(HashMap& other) noexcept { table_.swap(other.table_); }

    void clear() {
        // Bucket by bucket from the front: an erased entry's successor is the next first one.
        for (IteratorConst at = begin(); at != end();) {
            Node* const node = at.node_;
            ++at;
            table_.remove(node->entry.first);
            delete node;
        }
    }

  private:
    Table table_;
};

} // namespace Mox
