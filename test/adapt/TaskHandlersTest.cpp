#include <adapt/TaskHandlers.h>
#include <adapt/YieldIfNeeded.h>

#include <support/HandRoot.h>
#include <support/TraceLog.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/defer.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using boost::asio::awaitable;
using boost::asio::co_spawn;
using boost::asio::detached;
using boost::asio::dispatch;
using boost::asio::post;
using Kel::TaskHandlers;
using Mox::Ptr;
using testing::ElementsAre;

struct TaskHandlersTest : TestSupport::HandTreeTest {
    using Socket = boost::asio::local::stream_protocol::socket;

    TaskHandlersTest() { boost::asio::local::connect_pair(socket, peer); }

    /// Works in steps of 5 ms, four to a quantum.
    template <class Executor> awaitable<void, Executor> work(int name, int steps) {
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

TEST_F(TaskHandlersTest, RunInTheTasksRunsUntilItShouldYield) {
    for (int n = 0; n < 10; ++n)
        post(executor, [&] {
            calls(static_cast<int>(t->taskRun()));
            steady.advance(5ms);
        });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 1, 1, 1, 2, 2, 2, 2, 3, 3));
    EXPECT_EQ(10u, t->taskWorkCount());
    EXPECT_EQ(0.02, t->taskRunTimeHighWaterMark());
    EXPECT_FALSE(t->taskBusy());
}

TEST_F(TaskHandlersTest, CoroutinesOfATaskYieldWhenTheQuantumIsUsedAndTakeTurns) {
    co_spawn(executor, work<Kel::TaskExecutor>(1, 6), detached);
    co_spawn(executor, work<boost::asio::any_io_executor>(2, 6), detached);
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(11, 11, 11, 11, 22, 22, 22, 22, 31, 31, 32, 32));
    EXPECT_EQ(0u, t->taskQuantumViolation200());
}

TEST_F(TaskHandlersTest, OnlyDispatchFromInsideARunCallsAtOnce) {
    boost::asio::any_io_executor const any = executor; // as sockets, timers and coroutines carry it
    auto const never = boost::asio::require(any, boost::asio::execution::blocking.never);
    EXPECT_NE(any, never);
    EXPECT_EQ(any, boost::asio::prefer(never, boost::asio::execution::blocking.possibly));
    EXPECT_EQ(boost::asio::query(never, boost::asio::execution::blocking),
              boost::asio::execution::blocking.never);
    EXPECT_EQ(boost::asio::query(any, boost::asio::execution::blocking),
              boost::asio::execution::blocking.possibly);
    dispatch(any, [&] {
        t->taskRunFromTest(); // a run within the run
        calls(1);
        post(any, [&] { calls(5); });
        boost::asio::defer(any, [&] { calls(6); });
        dispatch(never, [&] { calls(7); });
        dispatch(any, [&] { calls(2); });
        dispatch(executor, [&] { calls(3); });
        calls(4);
    });
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(2u, t->taskRun());
}

TEST_F(TaskHandlersTest, OperationsOnTheLoopCompleteInARunOfTheTask) {
    socket.async_wait(Socket::wait_read, [&](auto) { calls(t->taskCurrentlyRunning()); });
    auto const waits = [&]() -> awaitable<void> {
        co_await socket.async_wait(Socket::wait_read, boost::asio::use_awaitable);
        calls(t->taskCurrentlyRunning());
    };
    co_spawn(executor, waits, detached);
    root->runUntilIdle();
    peer.close();
    loop->runOnce();
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 1));
}

TEST_F(TaskHandlersTest, ThoseLeftWhenItGoesAreDestroyedWithoutACall) {
    auto const owned = std::make_shared<int>();
    socket.async_wait(Socket::wait_read, [owned](auto) { FAIL(); });
    post(executor, [this] {
        calls(1);
        handlers = nullptr; // in its own run
    });
    // A handler that brings another one when it is destroyed.
    std::shared_ptr<void> brings(nullptr, [this, owned](void*) {
        post(executor, [owned] { FAIL(); });
        calls(2);
    });
    post(executor, [owned, moved = std::move(brings)] { FAIL(); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2));
    EXPECT_EQ(2, owned.use_count()); // the socket's
    peer.close();
    loop->runOnce();
    post(executor, [owned] { FAIL(); });
    EXPECT_EQ(1, owned.use_count());
    EXPECT_FALSE(t->taskScheduled());
}

TEST_F(TaskHandlersTest, CoroutinesAreDestroyedWithItOrWithTheLoopWhereverTheyWait) {
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
    co_spawn(executor, waits(owned), detached);
    root->runUntilIdle();
    co_spawn(executor, yields(owned), detached);
    root->handleSchedulerRun();
    co_spawn(executor, yields(owned), detached); // has not begun
    EXPECT_EQ(4, owned.use_count());
    handlers = nullptr;
    EXPECT_EQ(2, owned.use_count());
    socket.close(), peer.close();
    loop = nullptr;
    EXPECT_EQ(1, owned.use_count());
}

TEST_F(TaskHandlersTest, OneThatThrowsEndsTheRunAndTheRestHasTheNext) {
    TestSupport::TraceLog log({0}, "Mox");
    post(executor, [] { throw std::runtime_error("no route"); });
    post(executor, [&] { calls(static_cast<int>(t->taskRun())); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(2));
    EXPECT_THAT(log.take(), testing::HasSubstr("no route"));
}

TEST_F(TaskHandlersTest, OutliveASuspensionAndBeingTakenOffTheQueue) {
    t->taskSuspendedForTestIs(true);
    post(executor, [&] { calls(1); });
    EXPECT_EQ(0u, root->runUntilIdle());
    t->taskSuspendedForTestIs(false);
    t->unscheduleTask();
    EXPECT_EQ(0u, root->runUntilIdle());
    post(executor, [&] { calls(2); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2));
}

} // namespace
