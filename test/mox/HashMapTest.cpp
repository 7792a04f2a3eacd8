#include <mox/HashMap.h>

#include <support/Names.h>
#include <support/Random.h>

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <set>

namespace {

using namespace TestSupport;

/// Three keys share each hash; the hashes are multiples of 16, as addresses are. A sorted map has them in the
/// order of the hash map.
struct Key {
    U32 number;
    U32 hash() const { return number / 3 * 16; }
    auto place() const { return std::pair(hashOrder(*this), number); }
    friend bool operator==(Key const&, Key const&) = default;
    friend auto operator<=>(Key const& a, Key const& b) { return a.place() <=> b.place(); }
};

template <class At, class Wanted> void expectSame(At at, At atEnd, Wanted wanted, Wanted wantedEnd) {
    for (int steps = 0; steps < 4 && at != atEnd && wanted != wantedEnd; ++steps, ++at, ++wanted)
        ASSERT_TRUE(*at == *wanted) << at->first.number << " for " << wanted->first.number;
    ASSERT_EQ(wanted == wantedEnd, at == atEnd);
}

TEST(HashMap, ARandomProgramDoesWhatASortedMapDoes) {
    Random random;
    HashMap<Key, int> map;
    std::map<Key, int> model;
    std::size_t const steps = operations(300'000);
    for (std::size_t step = 0; step < steps && !testing::Test::HasFatalFailure(); ++step) {
        // The keys in use grow, so that the table grows while it is walked, and holds few and many.
        Key const key{static_cast<U32>(random.below(10 + step / 10))};
        std::size_t const what = random.below(4);
        random.doing("operation " + std::to_string(what) + " of", key.number);
        if (what < 2) {
            map.valueIs(key, static_cast<int>(step));
            model[key] = static_cast<int>(step);
        } else if (what < 3) {
            ASSERT_EQ(model.erase(key) > 0, map.erase(key));
        } else {
            int const* const value = map.find(key);
            ASSERT_EQ(model.contains(key), value != nullptr);
            ASSERT_TRUE(!value || *value == model[key]);
        }
        ASSERT_EQ(model.size(), map.size());
        expectSame(map.iteratorFrom(key), map.end(), model.lower_bound(key), model.end());
        expectSame(map.begin(), map.end(), model.begin(), model.end());
    }
    auto const copy = map;
    EXPECT_TRUE(std::ranges::equal(copy, model)) << "a copy";
}

/// A node, and how the table sees it, which counts how often that is.
struct Counted {
    using Key = ::Key;
    using Node = Counted;
    static Key const& key(Node const& node) { return node.key_; }
    static U32 code(Node const& node) { return ++looks, hashOrder(node.key_); }
    static Node*& next(Node& node) { return node.next_; }
    static inline std::size_t looks = 0;
    Key key_;
    Node* next_ = nullptr;
};

TEST(HashTable, GrowsInNoLongInsertion) {
    std::deque<Counted> nodes;
    HashTable<Counted> table;
    for (U32 number = 0; number < 100'000; ++number) {
        Counted::looks = 0;
        table.insert(&nodes.emplace_back(Counted{{3 * number}}));
        ASSERT_LT(Counted::looks, 100u) << number;
    }
}

} // namespace
