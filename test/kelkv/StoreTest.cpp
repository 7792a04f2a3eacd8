#include <kelkv/Walk.h>

#include <scheduler/TaskSchedulerEventLoop.h>
#include <support/Random.h>
#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>

#include <map>
#include <set>
#include <sstream>

namespace KelKv {

namespace {

struct StoreTest : testing::Test {
    void turn(int turns) {
        for (int i = 0; i < turns; ++i)
            loop->runOnce();
    }
    void timeIs(Mox::Seconds seconds) {
        time.clock->nowIs(seconds);
        turn(10);
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Mox::Ptr<Kel::TaskScheduler> const root =
        Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("kelkv", loop);
    Store store{root};
};

/// Collects a walk's reply.
struct Gathered final : WalkClient {
    bool pieceIs(std::string&& piece) override {
        reply += piece;
        return false;
    }
    void walkDone() override { isDone = true; }

    /// The keys of a reply whose keys hold no line ends.
    std::multiset<std::string> keys() const {
        std::multiset<std::string> keys;
        std::istringstream lines(reply);
        for (std::string line; std::getline(lines, line);)
            if (line[0] == 'k')
                keys.insert(line.substr(0, line.size() - 1));
        return keys;
    }

    std::string reply;
    bool isDone = false;
};

} // namespace

// A walk is stepped shard by shard, with writes between the steps.
TEST_F(StoreTest, WalkFindsWhatIsThereThroughoutOnceAndNothingThatNeverWas) {
    TestSupport::Random random;
    std::map<std::string, std::string> model;
    std::set<std::string> throughout, ever;
    auto const change = [&] {
        std::string const key = "k" + std::to_string(random.below(20000));
        if (random.below(3) > 0) {
            store.set(key, key + "!");
            model[key] = key + "!";
            ever.insert(key);
        } else {
            EXPECT_EQ(store.erase(key), model.erase(key) == 1);
            throughout.erase(key);
        }
    };
    for (int i = 0; i < 20000; ++i)
        change();
    ever.clear();
    for (auto const& [key, value] : model) {
        throughout.insert(key);
        ever.insert(key);
    }
    Gathered client;
    Mox::Ptr<Walk> const walk = new Walk(root, store, client, "*");
    walk->task()->taskForceYieldInTestIs(true); // one shard a run
    for (std::size_t runs = 0; runs < 2 * Store::shards && !client.isDone; ++runs) {
        for (int i = 0; i < 5; ++i)
            change();
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
    turn(2 * Store::shards);
    ASSERT_TRUE(client.isDone);
    EXPECT_THAT(client.reply, testing::StartsWith(":"));
    EXPECT_LT(std::stoul(client.reply.substr(1)), 1000u);
}

TEST_F(StoreTest, KeyIsGoneWhenItsTimeHasComeUnlessItWasWrittenOrPersistedSince) {
    for (char const* key : {"written", "persisted", "left", "looked for"})
        store.expiryIs(key, store.set(key, "1"), 10.0);
    store.expiryDel(*store.find("persisted"));
    store.set("written", "2");
    timeIs(9.4);
    EXPECT_NE(store.find("looked for"), nullptr);
    time.clock->nowIs(10.0); // no task has run yet
    EXPECT_EQ(store.find("looked for"), nullptr);
    EXPECT_EQ(store.size(), 3u);
    timeIs(10.02);
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
    timeIs(2.0);
    turn(10);
    ASSERT_NE(store.find("key"), nullptr);
}

} // namespace KelKv
