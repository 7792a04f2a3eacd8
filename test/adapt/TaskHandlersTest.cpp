#include <adapt/TaskHandlers.h>
#include <adapt/YieldIfNeeded.h>

#include <support/HandRoot.h>
#include <support/TraceLog.h>

#include <boost/asio.hpp>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;
using Kel::TaskHandlers;
using Mox::Ptr;
using testing::ElementsAre;

struct TaskHandlersTest : TestSupport::HandTreeTest {
    using Socket = asio::local::stream_protocol::socket;

    TaskHandlersTest() { asio::local::connect_pair(socket, peer); }

    /// Works in steps of 5 ms, four to a quantum.
    template <class Executor> asio::awaitable<void, Executor> work(int name, int steps) {
        for (int step = 0; step < steps; ++step) {
            calls(static_cast<int>(t->taskRun()) * 10 + name);
            steady.advance(5ms);
            co_await Kel::yieldIfNeeded<Executor>(t);
        }
    }
    void calls(int number) { called.push_back(number); }

    Ptr<Kel::EventLoop> loop = Kel::EventLoop::EventLoopIs();
    Ptr<Kel::Task> const t = task();
    Ptr<TaskHandlers> handlers = TaskHandlers::TaskHandlersIs(t, loop);
    Kel::TaskExecutor const executor = handlers->executor();
    Socket socket{executor}, peer{executor};
    std::vector<int> called;
};

TEST_F(TaskHandlersTest, CoroutinesOfATaskYieldWhenTheQuantumIsUsedAndTakeTurns) {
    asio::co_spawn(executor, work<Kel::TaskExecutor>(1, 6), asio::detached);
    asio::co_spawn(executor, work<asio::any_io_executor>(2, 6), asio::detached);
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(11, 11, 11, 11, 22, 22, 22, 22, 31, 31, 32, 32));
    EXPECT_EQ(0u, t->taskQuantumViolation200());
    EXPECT_EQ(5u, t->taskWorkCount()); // each began, went on, and one had to yield at its end
}

TEST_F(TaskHandlersTest, OnlyDispatchFromInsideARunCallsAtOnce) {
    asio::any_io_executor const any = executor; // as sockets, timers and coroutines carry it
    auto const never = asio::require(any, asio::execution::blocking.never);
    asio::dispatch(any, [&] {
        t->taskRunFromTest(); // a run within the run
        calls(1);
        asio::post(any, [&] { calls(5); });
        asio::defer(any, [&] { calls(6); });
        asio::dispatch(never, [&] { calls(7); });
        asio::dispatch(any, [&] { calls(2); });
        asio::dispatch(executor, [&] { calls(3); });
        calls(4);
    });
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(2u, t->taskRun());
}

TEST_F(TaskHandlersTest, OperationsOnTheLoopCompleteInARunOfTheTask) {
    socket.async_wait(Socket::wait_read, [&](auto) { calls(t->taskCurrentlyRunning()); });
    root->runUntilIdle();
    peer.close();
    loop->runOnce();
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1));
}

TEST_F(TaskHandlersTest, ThoseLeftWhenItGoesAreDestroyedWithoutACall) {
    auto const owned = std::make_shared<int>();
    socket.async_wait(Socket::wait_read, [owned](auto) { FAIL(); });
    asio::post(executor, [this] {
        calls(1);
        handlers = nullptr; // in its own run
    });
    // A handler that brings another one when it is destroyed.
    std::shared_ptr<void> brings(nullptr, [this, owned](void*) {
        asio::post(executor, [owned] { FAIL(); });
        calls(2);
    });
    asio::post(executor, [owned, moved = std::move(brings)] { FAIL(); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2));
    EXPECT_EQ(2, owned.use_count()); // the socket's
    peer.close();
    loop->runOnce();
    asio::post(executor, [owned] { FAIL(); });
    EXPECT_EQ(1, owned.use_count());
    EXPECT_FALSE(t->taskScheduled());
}

TEST_F(TaskHandlersTest, CoroutinesAreDestroyedWithItOrWithTheLoopWhereverTheyWait) {
    auto const owned = std::make_shared<int>();
    auto const waits = [](std::shared_ptr<int>) -> asio::awaitable<void> {
        asio::steady_timer timer(co_await asio::this_coro::executor, 1h);
        co_await timer.async_wait(asio::use_awaitable);
    };
    auto const yields = [this](std::shared_ptr<int>) -> asio::awaitable<void> {
        steady.advance(20ms);
        co_await Kel::yieldIfNeeded(t);
    };
    asio::co_spawn(executor, waits(owned), asio::detached);
    root->runUntilIdle();
    asio::co_spawn(executor, yields(owned), asio::detached);
    root->handleSchedulerRun();
    asio::co_spawn(executor, yields(owned), asio::detached); // has not begun
    EXPECT_EQ(4, owned.use_count());
    handlers = nullptr;
    EXPECT_EQ(2, owned.use_count());
    socket.close(), peer.close();
    loop = nullptr;
    EXPECT_EQ(1, owned.use_count());
}

TEST_F(TaskHandlersTest, OutliveAThrowASuspensionAndBeingTakenOffTheQueue) {
    TestSupport::TraceLog log({0}, "Mox");
    asio::post(executor, [] { throw std::runtime_error("no route"); });
    asio::post(executor, [&] { calls(static_cast<int>(t->taskRun())); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(2));
    EXPECT_THAT(log.take(), testing::HasSubstr("no route"));
    EXPECT_EQ(2u, t->taskWorkCount());
    t->taskSuspendedForTestIs(true);
    asio::post(executor, [&] { calls(3); });
    EXPECT_EQ(0u, root->runUntilIdle());
    t->taskSuspendedForTestIs(false);
    t->unscheduleTask();
    EXPECT_EQ(0u, root->runUntilIdle());
    asio::post(executor, [&] { calls(4); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(2, 3, 4));
    t->taskForceYieldInTestIs(true);
    asio::post(executor, [&] { calls(5); });
    EXPECT_EQ(1u, root->runUntilIdle());
    EXPECT_THAT(called, ElementsAre(2, 3, 4, 5));
}

} // namespace
