#include <adapt/TaskHandlers.h>
#include <adapt/YieldIfNeeded.h>

#include <support/HandRoot.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using boost::asio::awaitable;
using boost::asio::co_spawn;
using boost::asio::detached;
using Kel::TaskHandlers;
using Mox::Ptr;
using testing::ElementsAre;

struct CoroutineTest : TestSupport::HandTreeTest {
    /// Works in steps of 5 ms, four to a quantum.
    template <class Executor> awaitable<void, Executor> work(int name, int steps) {
        for (int step = 0; step < steps; ++step) {
            log.push_back(static_cast<int>(t->taskRun()) * 10 + name);
            steady.advance(5ms);
            co_await Kel::yieldIfNeeded<Executor>(t);
        }
    }

    Ptr<Kel::EventLoop> loop = Kel::EventLoop::EventLoopIs();
    Ptr<Kel::Task> const t = task();
    Ptr<TaskHandlers> handlers = TaskHandlers::TaskHandlersIs(t, loop);
    std::vector<int> log; // run * 10 + name
};

TEST_F(CoroutineTest, YieldSuspendsOnlyWhenTheQuantumIsUsed) {
    co_spawn(handlers->executor(), work<Kel::TaskExecutor>(1, 10), detached);
    root->runUntilIdle();
    EXPECT_THAT(log, ElementsAre(11, 11, 11, 11, 21, 21, 21, 21, 31, 31));
    EXPECT_EQ(3u, t->taskRun());
    EXPECT_EQ(0u, t->taskQuantumViolation200());
}

TEST_F(CoroutineTest, CoroutinesOfATaskTakeTurns) {
    co_spawn(handlers->executor(), work<boost::asio::any_io_executor>(1, 6), detached);
    co_spawn(handlers->executor(), work<boost::asio::any_io_executor>(2, 6), detached);
    root->runUntilIdle();
    EXPECT_THAT(log, ElementsAre(11, 11, 11, 11, 22, 22, 22, 22, 31, 31, 32, 32));
}

TEST_F(CoroutineTest, WaitsOnTheLoopAndGoesOnInARunOfTheTask) {
    using Socket = boost::asio::local::stream_protocol::socket;
    Socket socket(handlers->executor()), peer(handlers->executor());
    boost::asio::local::connect_pair(socket, peer);
    auto const waits = [&]() -> awaitable<void> {
        co_await socket.async_wait(Socket::wait_read, boost::asio::use_awaitable);
        log.push_back(t->taskCurrentlyRunning());
    };
    co_spawn(handlers->executor(), waits, detached);
    root->runUntilIdle();
    peer.close();
    loop->runOnce();
    EXPECT_THAT(log, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(CoroutineTest, WhereverItWaitsItIsDestroyedWithTheHandlersOrTheLoop) {
    auto const owned = std::make_shared<int>();
    auto const waits = [](std::shared_ptr<int>) -> awaitable<void> {
        boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor, 1h);
        co_await timer.async_wait(boost::asio::use_awaitable);
        ADD_FAILURE();
    };
    auto const yields = [this](std::shared_ptr<int>) -> awaitable<void> {
        steady.advance(20ms);
        co_await Kel::yieldIfNeeded(t);
        ADD_FAILURE();
    };
    co_spawn(handlers->executor(), waits(owned), detached);
    root->runUntilIdle();
    co_spawn(handlers->executor(), yields(owned), detached);
    root->handleSchedulerRun();
    co_spawn(handlers->executor(), yields(owned), detached); // has not begun
    EXPECT_EQ(4, owned.use_count());
    handlers = nullptr;
    EXPECT_EQ(2, owned.use_count());
    loop = nullptr;
    EXPECT_EQ(1, owned.use_count());
}

} // namespace
