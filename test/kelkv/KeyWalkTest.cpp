#include "EngineTest.h"

#include <support/TraceLog.h>

#include <cmath>

namespace KelKv {

using KeyWalkTest = EngineTest;

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
    Walked counted(*this, std::nullopt), cancelled(*this, "*"), failed(*this, "*"), left(*this, "*");
    failed.atPiece = [] { throw std::runtime_error("the client failed"); };
    left.atPiece = [&] { left.walk->cancel(); };
    turn(20);
    store.clear();
    cancelled.walk->cancel();
    counted.finish();
    failed.finish();
    turn(100);
    EXPECT_NE(left.reply, "");
    EXPECT_EQ(counted.end + cancelled.end + left.end + failed.end, "donefailed");
    EXPECT_THAT(counted.reply, testing::MatchesRegex(":[0-9]{1,3}\r\n"));
    EXPECT_EQ(cancelled.reply, "");
    EXPECT_THAT(trace.take(), testing::HasSubstr("the client failed"));
}

TEST_F(KeyWalkTest, KeysAreGoneAtTheirMomentThoughNoTaskHasRun) {
    for (char const* key : {"left", "found", "erased", "written"})
        store.dueIs(key, store.set(key, "1"), 10.0);
    Mox::Ptr<Expiry> const replaced = store.find("written")->expiry; // a flushed value may hold it
    store.set("written", "2");
    time.clock->nowIs(std::nextafter(10.0, 0.0));
    EXPECT_NE(store.find("found"), nullptr);
    Walked walked(*this, "[^w]*");
    time.clock->nowIs(10.0);
    while (walked.end.empty())
        walked.walk->onTaskRun();
    EXPECT_EQ(walked.reply, "*0\r\n");
    EXPECT_EQ(store.find("found"), nullptr);
    EXPECT_FALSE(store.erase("erased")) << "it was there";
    EXPECT_EQ(store.size(), 2u);
    time.clock->nowIs(10.52); // a twentieth later, and a tick
    turn(10);
    EXPECT_EQ(store.size(), 1u);
    EXPECT_EQ(store.expired(), 3u);
}

} // namespace KelKv
