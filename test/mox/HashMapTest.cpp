#include <mox/HashMap.h>

#include <support/Random.h>

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

using Mox::U32;

/// Three keys share each hash; the hashes are multiples of 16, as addresses are.
struct Key {
    U32 number;
    U32 hash() const { return number / 3 * 16; }
    friend auto operator<=>(Key const&, Key const&) = default;
};

/// A slow and obvious map in the same order.
struct InMapOrder {
    bool operator()(Key const& a, Key const& b) const {
        return std::pair(Mox::hashOrder(a), a) < std::pair(Mox::hashOrder(b), b);
    }
};
using Model = std::map<Key, int, InMapOrder>;

template <class Map, class At>
void expectEqualFrom(Map const& map, At at, Model const& model, Key const& key) {
    auto wanted = model.lower_bound(key);
    for (int steps = 0; steps < 4 && wanted != model.end(); ++steps, ++at, ++wanted) {
        ASSERT_TRUE(at != map.end()) << "from " << key.number;
        ASSERT_EQ(wanted->first, at->first);
        ASSERT_EQ(wanted->second, at->second);
    }
    ASSERT_EQ(wanted == model.end(), at == map.end());
}

TEST(HashMap, ARandomProgramDoesWhatASortedMapDoes) {
    TestSupport::Random random;
    Mox::HashMap<Key, int> map;
    Model model;
    std::size_t const steps = TestSupport::operations(300'000);
    for (std::size_t step = 0; step < steps && !testing::Test::HasFatalFailure(); ++step) {
        // The keys in use grow, so that the table grows while it is walked, and holds few and many.
        Key const key{static_cast<U32>(random.below(10 + step / 10))};
        if (random.oneIn(2)) {
            map.valueIs(key, static_cast<int>(step));
            model[key] = static_cast<int>(step);
        } else if (random.oneIn(2)) {
            ASSERT_EQ(model.erase(key) > 0, map.erase(key));
        } else {
            auto const found = model.find(key);
            int const* const value = map.find(key);
            ASSERT_EQ(found != model.end(), value != nullptr);
            ASSERT_TRUE(!value || *value == found->second);
        }
        ASSERT_EQ(model.size(), map.size());
        expectEqualFrom(map, map.iteratorFrom(key), model, key);
        expectEqualFrom(map, map.begin(), model, model.empty() ? key : model.begin()->first);
    }
    EXPECT_TRUE(std::ranges::equal(map, model));
    Mox::HashMap<Key, int> copy;
    EXPECT_FALSE(copy.erase(Key{1}));
    copy.valueIs(Key{~0u}, 1);
    copy = map;
    copy = *&copy;
    EXPECT_TRUE(std::ranges::equal(copy, model)) << "a copy";
}

TEST(HashOrder, SpreadsAddressesOverTheBuckets) {
    constexpr U32 buckets = 4096;
    std::set<U32> used;
    for (U32 i = 0; i < buckets; ++i)
        used.insert(Mox::hashOrder(reinterpret_cast<Key*>(std::uintptr_t{0x5000000} + 16 * i)) >> 20);
    EXPECT_GT(used.size(), buckets / 2); // throwing balls at random would use 63 in 100
}

} // namespace
