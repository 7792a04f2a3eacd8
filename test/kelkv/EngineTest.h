#pragma once

#include "CommandClient.h"

#include <kelkv/KeyWalk.h>

#include <support/VirtualTime.h>

#include <boost/algorithm/string.hpp>
#include <boost/algorithm/string/regex.hpp>
#include <gmock/gmock.h>

#include <functional>
#include <set>

namespace KelKv {

/// The rows of a table in one text: an end of a line, or two blanks, are between them.
inline std::vector<std::string> rowsOf(std::string_view text) {
    std::vector<std::string> rows;
    boost::split_regex(rows, boost::trim_copy(text), boost::regex(" *\n *|  +"));
    return rows;
}

inline std::string bulk(std::string const& text) {
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

inline void fill(Store& store, int keys) {
    for (int i = 0; i < keys; ++i)
        store.set("key" + std::to_string(i), "value");
}

constexpr double calendarBegin = 1e9;

/// What commands and walks work on, without a port.
struct EngineTest : testing::Test {
    EngineTest() {
        engine.calendarTime = [] { return calendarBegin + Mox::now(); };
    }
    void turn(int turns) {
        for (int i = 0; i < turns; ++i)
            loop->runOnce();
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Engine engine{loop};
    Store& store = engine.store;
};

/// A walk that takes one step a run, and its reply.
struct Walked final : KeyWalk::Client {
    Walked(EngineTest& on, std::optional<std::string> pattern)
        : test(on),
          walk(new KeyWalk(on.engine.root, on.store, on.engine.walkBytes, *this, std::move(pattern))) {
        walk->task()->taskForceYieldInTestIs(true);
    }
    bool pieceIs(std::string&& piece) override {
        if (atPiece)
            atPiece();
        reply += piece;
        return reply.size() % 2 == 0;
    }
    void walkDone() override { end = "done"; }
    void walkFailed() noexcept override { end = "failed"; }

    void step() {
        test.turn(1);
        walk->handOver();
    }
    /// How many runs it took.
    std::size_t finish() {
        std::size_t runs = 0;
        for (; runs < 100000 && end.empty(); ++runs)
            step();
        return runs;
    }
    /// A reply of keys has the form of a request.
    std::multiset<std::string> keys() const {
        auto const lists = requestsIn(RequestParser(), reply);
        EXPECT_EQ(lists.size(), 1u);
        return {lists.at(0).begin(), lists.at(0).end()};
    }

    EngineTest& test;
    std::string reply, end;
    std::function<void()> atPiece;
    Mox::Ptr<KeyWalk> const walk;
};

} // namespace KelKv
