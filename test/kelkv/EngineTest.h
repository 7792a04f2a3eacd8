#pragma once

#include <kelkv/Engine.h>

#include <support/VirtualTime.h>

#include <boost/algorithm/string.hpp>
#include <boost/algorithm/string/regex.hpp>
#include <gmock/gmock.h>

#include <string>
#include <string_view>
#include <vector>

namespace KelKv {

/// The rows of a table in one text: an end of a line, or two blanks, are between them.
inline std::vector<std::string> rowsOf(std::string_view text) {
    std::vector<std::string> rows;
    boost::split_regex(rows, boost::trim_copy(text), boost::regex(" *\n *|  +"));
    return rows;
}

inline void fill(Store& store, int keys) {
    for (int i = 0; i < keys; ++i)
        store.set("key" + std::to_string(i), "value");
}

/// What commands and walks work on, without a port.
struct EngineTest : testing::Test {
    void turn(int turns) {
        for (int i = 0; i < turns; ++i)
            loop->runOnce();
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Engine engine{loop};
    Store& store = engine.store;
};

} // namespace KelKv
