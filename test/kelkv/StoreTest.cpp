#include <kelkv/Walk.h>

#include <scheduler/TaskSchedulerEventLoop.h>
#include <support/Random.h>
#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>

#include <map>
#include <set>

namespace KelKv {

namespace {

using TestSupport::Random;

class Fixture {
  public:
    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Mox::Ptr<Kel::TaskScheduler> const root =
        Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("kelkv", loop);
    Store store{root};

    void turn(int turns) {
        for (int i = 0; i < turns; ++i)
            loop->runOnce();
    }
};

class StoreTest : public testing::Test, public Fixture {};

/// Collects a walk's reply.
class Gathered final : public WalkClient {
  public:
    bool pieceIs(std::string&& piece) override {
        reply += piece;
        return false;
    }
    void walkDone() override { isDone = true; }

    /// The keys of a reply whose keys hold no line ends.
    std::multiset<std::string> keys() const {
        std::multiset<std::string> keys;
        for (std::size_t at = reply.find('\n') + 1; at < reply.size();) {
            std::size_t const begin = reply.find('\n', at) + 1;
            at = reply.find('\n', begin) + 1;
            keys.insert(reply.substr(begin, at - 2 - begin));
        }
        return keys;
    }

    std::string reply;
    bool isDone = false;
};

} // namespace

// A walk is stepped shard by shard, with writes between the steps.
TEST_F(StoreTest, WalkFindsWhatIsThereThroughoutOnceAndNothingThatNeverWas) {
    Random random;
    std::map<std::string, std::string> model;
    auto const change = [&] {
        std::string const key = "k" + std::to_string(random.below(20000));
        if (random.below(3) > 0) {
            store.set(key, key + "!");
            model[key] = key + "!";
        } else {
            EXPECT_EQ(store.erase(key), model.erase(key) == 1);
        }
        return key;
    };
    for (int i = 0; i < 20000; ++i)
        change();

    std::set<std::string> throughout;
    for (auto const& [key, value] : model)
        throughout.insert(key);
    std::set<std::string> ever = throughout;
    Gathered client;
    Mox::Ptr<Walk> const walk = new Walk(root, store, client, "*");
    walk->task()->taskForceYieldInTestIs(true); // one shard a run
    for (std::size_t runs = 0; runs < 2 * Store::shards && !client.isDone; ++runs) {
        for (int i = 0; i < 5; ++i) {
            std::string const key = change();
            if (model.contains(key))
                ever.insert(key);
            else
                throughout.erase(key);
        }
        turn(1);
        walk->resume(); // for the handing over
    }

    ASSERT_TRUE(client.isDone);
    auto const found = client.keys();
    EXPECT_TRUE(client.reply.starts_with("*" + std::to_string(found.size()) + "\r\n"));
    for (std::string const& key : throughout)
        EXPECT_EQ(found.count(key), 1u) << key;
    for (std::string const& key : found)
        EXPECT_EQ(ever.count(key), 1u) << key;
    EXPECT_EQ(store.size(), model.size());
    for (auto const& [key, value] : model)
        EXPECT_EQ(store.find(key)->text, value);
}

TEST_F(StoreTest, FlushEndsAWalkUnderWayEarlyButWhole) {
    for (int i = 0; i < 10000; ++i)
        store.set(std::to_string(i), "");
    Gathered client;
    Mox::Ptr<Walk> const walk = new Walk(root, store, client, std::nullopt);
    walk->task()->taskForceYieldInTestIs(true);
    turn(10);
    store.clear();
    store.set("new", "");
    for (std::size_t runs = 0; runs < 2 * Store::shards; ++runs)
        turn(1);
    ASSERT_TRUE(client.isDone);
    EXPECT_THAT(client.reply, testing::StartsWith(":"));
    EXPECT_LT(std::stoul(client.reply.substr(1)), 1000u);
}

TEST_F(StoreTest, KeyIsGoneWhenItsTimeHasComeAndErasedSoonAfter) {
    store.expiryIs("a", store.set("a", "1"), 10.0);
    time.clock->nowIs(9.4);
    turn(5);
    EXPECT_NE(store.find("a"), nullptr);
    time.clock->nowIs(10.0); // no task has run yet
    EXPECT_EQ(store.size(), 1u);
    EXPECT_EQ(store.find("a"), nullptr);

    store.expiryIs("b", store.set("b", "1"), 10.0);
    time.clock->nowIs(20.02);
    turn(5);
    EXPECT_EQ(store.size(), 0u);
}

TEST_F(StoreTest, AWrittenOrPersistedKeyForgetsItsExpiry) {
    for (char const* key : {"written", "persisted", "left"})
        store.expiryIs(key, store.set(key, "1"), 1.0);
    store.expiryDel(*store.find("persisted"));
    store.set("written", "2");
    time.clock->nowIs(2.0);
    turn(10);
    EXPECT_EQ(store.size(), 2u);
    EXPECT_NE(store.find("persisted"), nullptr);
    EXPECT_EQ(store.find("written")->text, "2");
}

TEST_F(StoreTest, AFlushedKeyThatIsNotFreedYetDoesNotEraseItsSuccessor) {
    auto const busy =
        Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "busy"); // keeps the scavenger waiting
    Mox::Ptr<TestSupport::OnRun> const reactor = new TestSupport::OnRun(busy, [&] { busy->scheduleTask(); });
    busy->scheduleTask();
    store.expiryIs("key", store.set("key", "1"), 1.0);
    store.clear();
    store.set("key", "2");
    time.clock->nowIs(2.0);
    turn(20);
    ASSERT_NE(store.find("key"), nullptr);
}

} // namespace KelKv
