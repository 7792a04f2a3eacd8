#include <adapt/TaskHandlers.h>

#include <support/HandRoot.h>
#include <support/TraceLog.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/defer.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using boost::asio::defer;
using boost::asio::dispatch;
using boost::asio::post;
using Kel::TaskHandlers;
using Mox::Ptr;
using testing::ElementsAre;

struct TaskExecutorTest : TestSupport::HandTreeTest {
    using Socket = boost::asio::local::stream_protocol::socket;

    TaskExecutorTest() { boost::asio::local::connect_pair(socket, peer); }

    void peerCloses() {
        peer.close();
        loop->runOnce();
    }
    void calls(int number) { called.push_back(number); }

    Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs(timers.manager);
    Ptr<Kel::Task> const t = task();
    Ptr<TaskHandlers> handlers = TaskHandlers::TaskHandlersIs(t, loop);
    Kel::TaskExecutor const executor = handlers->executor();
    Socket socket{executor}, peer{executor};
    std::vector<int> called;
};

TEST_F(TaskExecutorTest, HandlersRunInTheTasksRunsUntilItShouldYield) {
    std::vector<Mox::U32> runs;
    for (int n = 0; n < 10; ++n)
        post(executor, [&] {
            runs.push_back(t->taskRun());
            steady.advance(5ms); // four to a quantum
        });
    root->runUntilIdle();
    EXPECT_THAT(runs, ElementsAre(1, 1, 1, 1, 2, 2, 2, 2, 3, 3));
    EXPECT_EQ(3u, t->taskRun());
    EXPECT_EQ(10u, t->taskWorkCount());
    EXPECT_EQ(0.05, t->taskTotalRunTime());
    EXPECT_EQ(0.02, t->taskRunTimeHighWaterMark());
    EXPECT_FALSE(t->taskBusy());
}

TEST_F(TaskExecutorTest, OnlyDispatchFromInsideARunCallsAtOnce) {
    boost::asio::any_io_executor const any = executor; // as sockets, timers and coroutines carry it
    auto const never = boost::asio::require(any, boost::asio::execution::blocking.never);
    EXPECT_NE(any, never);
    EXPECT_EQ(any, boost::asio::prefer(never, boost::asio::execution::blocking.possibly));
    dispatch(any, [&] {
        calls(1);
        post(any, [&] { calls(5); });
        defer(any, [&] { calls(6); });
        dispatch(never, [&] { calls(7); });
        dispatch(any, [&] { calls(2); });
        dispatch(executor, [&] { calls(3); });
        calls(4);
    });
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(1u, t->taskRun());
}

TEST_F(TaskExecutorTest, OperationsOnTheLoopCompleteInARunOfTheTask) {
    socket.async_wait(Socket::wait_read, [&](auto) { calls(t->taskCurrentlyRunning()); });
    peerCloses();
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1));
}

TEST_F(TaskExecutorTest, HandlersLeftWhenItGoesAreDestroyedWithoutACall) {
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
    EXPECT_EQ(4, owned.use_count());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2));
    EXPECT_EQ(2, owned.use_count()); // the socket's

    peerCloses();
    post(executor, [owned] { FAIL(); });
    EXPECT_EQ(1, owned.use_count());
    EXPECT_FALSE(t->taskScheduled());
}

TEST_F(TaskExecutorTest, HandlerThatThrowsEndsTheRunAndTheRestHasTheNext) {
    TestSupport::TraceLog log({0}, "Mox");
    post(executor, [] { throw std::runtime_error("no route"); });
    post(executor, [&] { calls(static_cast<int>(t->taskRun())); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(2));
    EXPECT_THAT(log.take(), testing::HasSubstr("no route"));
}

TEST_F(TaskExecutorTest, HandlersOutliveASuspensionAndBeingTakenOffTheQueue) {
    t->taskSuspendedForTestIs(true);
    post(executor, [&] { calls(1); });
    EXPECT_EQ(0u, root->runUntilIdle());
    t->taskSuspendedForTestIs(false);
    root->runUntilIdle();
    post(executor, [&] { calls(2); });
    t->unscheduleTask();
    root->runUntilIdle();
    post(executor, [&] { calls(3); });
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1, 2, 3));
}

} // namespace
