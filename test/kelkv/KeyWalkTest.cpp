#include "EngineTest.h"

#include <kelkv/KeyWalk.h>
#include <kelkv/RequestParser.h>

#include <support/Random.h>
#include <support/TraceLog.h>

#include <cmath>
#include <set>

namespace KelKv {

namespace {

/// A walk that takes one step a run, and its reply.
struct Walked final : KeyWalk::Client {
    Walked(EngineTest& on, std::optional<std::string> pattern)
        : test(on),
          walk(new KeyWalk(on.engine.root, on.store, on.engine.walkBytes, *this, std::move(pattern))) {
        walk->task()->taskForceYieldInTestIs(true);
    }
    bool pieceIs(std::string&& piece) override {
        reply += failing ? throw std::runtime_error("the client failed") : piece;
        return reply.size() % 2 == 0;
    }
    void walkDone() override { end = "done"; }
    void walkFailed() noexcept override { end = "failed"; }

    /// How many runs it took; `change` is called between them.
    std::size_t finish(std::function<void()> const& change = [] {}) {
        std::size_t runs = 0;
        for (; runs < 100000 && end.empty(); ++runs) {
            change();
            test.turn(1);
            walk->handOver();
        }
        return runs;
    }
    std::multiset<std::string> keys() const {
        RequestParser parser; // a reply of keys has the form of a request
        EXPECT_EQ(parser.take(reply), reply.size());
        EXPECT_EQ(parser.state(), RequestParser::State::complete);
        std::multiset<std::string> found;
        for (std::string_view const key : parser.arguments())
            found.emplace(key);
        return found;
    }

    EngineTest& test;
    std::string reply, end;
    bool failing = false;
    Mox::Ptr<KeyWalk> const walk;
};

using KeyWalkTest = EngineTest;

} // namespace

// The paper's text (appendix A), and what Python's hash() says of bytes with PYTHONHASHSEED=0.
TEST_F(KeyWalkTest, HashesAreThoseOfSipHashAndEachStoresOwn) {
    std::string bytes;
    for (char i = 0; i < 15; ++i)
        bytes += i;
    EXPECT_EQ((SipHash<2, 4>({0x0706050403020100, 0x0f0e0d0c0b0a0908})(bytes)), 0xa129ca6149be45e5);
    for (auto const& [text, hash] : {std::pair<std::string_view, std::uint64_t>{"a", 0x407448d2b89b1813},
                                     {"abcdefg", 0x6db12aae9070f506},
                                     {"abcdefgh", 0x3f7b849c0b8e35ea},
                                     {"key:000000012345", 0x286cb3dfebab533d},
                                     {bytes, 0xf30eb725bb91c9ea}})
        EXPECT_EQ(SipHash<>({0, 0})(text), hash) << text;
    EXPECT_NE(Engine(loop).store.hashOf("a"), store.hashOf("a"));
}

// Keys crowd in a few shards. With longer patterns a step visits all of a shard, a part of it, less than a
// key.
TEST_F(KeyWalkTest, FindsWhatIsThereThroughoutOnce) {
    TestSupport::Random random;
    std::vector<std::string> names;
    for (std::size_t i = 0; names.size() < 400; ++i) {
        std::string const name = "k" + std::to_string(i) + std::string(i % 4 * 1000, 'x');
        if (store.hashOf(name) % Store::shards % 1024 == 1023)
            names.push_back(name);
    }
    std::set<std::string> model, changed;
    auto const change = [&] {
        std::string const& key = names[random.below(400)];
        changed.insert(key);
        if (random.below(3) == 0)
            EXPECT_EQ(store.erase(key), model.erase(key) == 1);
        else
            store.set(key, *model.insert(key).first + "!");
    };
    for (std::size_t const stars : {1u, 30u, 100u}) {
        for (int i = 0; i < 1000; ++i)
            change();
        changed.clear();
        Walked walked(*this, "k" + std::string(stars, '*'));
        walked.finish([&, runs = 0]() mutable { ++runs % 64 == 0 ? change() : void(); });
        auto const found = walked.keys();
        EXPECT_EQ(store.size(), model.size());
        EXPECT_LT(changed.size(), 300u);
        for (std::string const& name : names) {
            Store::Value const* const value = store.find(name);
            EXPECT_EQ(value ? value->text.view() : "", model.contains(name) ? name + "!" : "");
            bool const isAny = changed.contains(name) && found.count(name) <= 1;
            EXPECT_TRUE(isAny || found.count(name) == model.count(name)) << stars << name.substr(0, 10);
        }
    }
}

TEST_F(KeyWalkTest, NoStepIsLongHoweverLongKeyAndPatternAre) {
    for (char const* key : {"one", "two", "three"})
        store.set(key + std::string(20000, 'a'), "");
    std::string last(20000, 'a'); // the last that is visited
    while (store.hashOf(last) % Store::shards != Store::shards - 1)
        last += 'a';
    store.set(last, "");
    Walked all(*this, "*****");
    EXPECT_LT(all.finish(), 20u);
    EXPECT_EQ(all.keys().size(), 4u);
    for (char const* begin : {"*a", "*[]b"}) {
        Walked walked(*this, std::string(begin).insert(2, std::string(1000, 'a')) + "b");
        EXPECT_GT(walked.finish(), 4u * 20000 * 1000 / KeySearch::stepCost);
        EXPECT_EQ(walked.reply, "*0\r\n");
    }
}

TEST_F(KeyWalkTest, EndsEarlyButWholeAfterAFlushAtOnceWhenCancelledAndWithItsClientsFailure) {
    TestSupport::TraceLog trace({0}, "Mox");
    fill(store, 10000);
    Walked counted(*this, std::nullopt), cancelled(*this, "*"), failed(*this, "*");
    failed.failing = true;
    turn(20);
    store.clear();
    cancelled.walk->cancel();
    counted.finish();
    failed.finish();
    EXPECT_EQ(counted.end + cancelled.end + failed.end, "donefailed");
    EXPECT_EQ(counted.reply.front(), ':');
    EXPECT_LT(std::stoul(counted.reply.substr(1)), 1000u);
    EXPECT_EQ(cancelled.reply, "");
    EXPECT_THAT(trace.take(), testing::HasSubstr("the client failed"));
}

TEST_F(KeyWalkTest, KeyIsGoneWhenItsTimeHasComeUnlessItWasWrittenOrPersistedSince) {
    for (char const* key : {"written", "persisted", "left", "found", "erased"})
        store.dueIs(key, store.set(key, "1"), 10.0);
    store.expiryDel(*store.find("persisted"));
    Mox::Ptr<Expiry> const replaced = store.find("written")->expiry; // a flushed value may hold it
    store.set("written", "2");
    Mox::Seconds const due = store.find("found")->due;
    time.clock->nowIs(std::nextafter(due, 0.0));
    EXPECT_NE(store.find("found"), nullptr);
    Walked walked(*this, "found");
    time.clock->nowIs(due); // no task has run yet
    while (walked.end.empty())
        walked.walk->onTaskRun();
    EXPECT_EQ(walked.reply, "*0\r\n");
    EXPECT_EQ(store.find("found"), nullptr);
    EXPECT_FALSE(store.erase("erased")) << "it was there";
    EXPECT_EQ(store.size(), 3u);
    time.clock->nowIs(10.52); // a twentieth later, and a tick
    turn(10);
    EXPECT_EQ(store.size(), 2u);
    EXPECT_EQ(store.expiring(), 0u);
    EXPECT_EQ(store.expired(), 3u);
    EXPECT_EQ(store.find("written")->text.view(), "2");
    Walked left(*this, "*");
    left.finish();
    EXPECT_EQ(left.keys(), (std::multiset<std::string>{"persisted", "written"}));
}

} // namespace KelKv
