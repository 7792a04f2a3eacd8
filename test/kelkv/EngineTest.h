#pragma once

#include <kelkv/Engine.h>

#include <support/VirtualTime.h>

#include <gmock/gmock.h>

namespace KelKv {

/// What commands and walks work on, without a port.
struct EngineTest : testing::Test {
    void turn(int turns) {
        for (int i = 0; i < turns; ++i)
            loop->runOnce();
    }
    void fill(int keys) {
        for (int i = 0; i < keys; ++i)
            engine.store.set("key" + std::to_string(i), "value");
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Engine engine{loop};
    Store& store = engine.store;
};

} // namespace KelKv
