#include <adapt/TaskHandlers.h>
#include <adapt/YieldIfNeeded.h>

#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TraceLog.h>

#include <boost/asio.hpp>

#include <gmock/gmock.h>

#include <deque>

namespace {

using namespace TestSupport;

namespace asio = boost::asio;
using testing::ElementsAre;

struct TaskHandlersTest : HandTreeTest {
    using Socket = asio::local::stream_protocol::socket;

    TaskHandlersTest() { asio::local::connect_pair(socket, peer); }

    /// Works in steps of 5 ms, four to a quantum.
    template <class Executor> asio::awaitable<void, Executor> work(int name, int steps) {
        for (int step = 0; step < steps; ++step) {
            calls(static_cast<int>(t->taskRun()) * 10 + name);
            steady.advance(5ms);
            co_await yieldIfNeeded<Executor>(t);
        }
    }
    void calls(int number) { called.push_back(number); }

    Ptr<EventLoop> loop = EventLoop::EventLoopIs();
    Ptr<Task> const t = task();
    Ptr<TaskHandlers> handlers = TaskHandlers::TaskHandlersIs(t, loop);
    TaskExecutor const executor = handlers->executor();
    Socket socket{executor}, peer{executor};
    std::vector<int> called;
};

TEST_F(TaskHandlersTest, CoroutinesOfATaskYieldWhenTheQuantumIsUsedAndTakeTurns) {
    asio::co_spawn(executor, work<TaskExecutor>(1, 6), asio::detached);
    asio::co_spawn(executor, work<asio::any_io_executor>(2, 6), asio::detached);
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(11, 11, 11, 11, 22, 22, 22, 22, 31, 31, 32, 32));
    EXPECT_EQ(0u, t->taskQuantumViolation200());
    EXPECT_EQ(5u, t->taskWorkCount()); // each began, went on, and one had to yield at its end
}

TEST_F(TaskHandlersTest, OperationsOnTheLoopWhichItHoldsCompleteInARunOfTheTaskAsLongAsItIsThere) {
    EventLoop& running = *std::exchange(loop, nullptr);
    auto const owned = std::make_shared<int>();
    socket.async_wait(Socket::wait_read, [&](auto) { calls(t->taskCurrentlyRunning()); });
    auto const waits = [this](std::shared_ptr<int>) -> asio::awaitable<void, TaskExecutor> {
        co_await peer.async_wait(Socket::wait_read, asio::use_awaitable_t<TaskExecutor>());
        ADD_FAILURE();
    };
    asio::co_spawn(executor, waits(owned), asio::detached);
    root->runUntilIdle();
    peer.shutdown(Socket::shutdown_send);
    running.runOnce();
    EXPECT_THAT(called, ElementsAre());
    root->runUntilIdle();
    EXPECT_THAT(called, ElementsAre(1));
    loop = &running;
    handlers = nullptr;
    socket.close();
    running.runOnce();
    EXPECT_EQ(1, owned.use_count());
    auto const never = asio::execution::blocking.never;
    EXPECT_TRUE(asio::query(asio::require(executor, never), asio::execution::blocking) == never);
    EXPECT_FALSE(executor == asio::require(executor, never));
    Ptr<HandlerQueue> queue = new HandlerQueue(t.ptr(), running.ioContext());
    queue->append([&] { EXPECT_EQ(2u, std::exchange(queue, nullptr)->references()) << "its run holds it"; });
    queue->run();
    auto other = TaskHandlers::TaskHandlersIs(t, EventLoop::EventLoopIs());
    auto const closed = other->executor();
    asio::post(closed, [post = std::shared_ptr<void>(nullptr, [=](void*) { asio::post(closed, [] {}); })] {});
    t->unscheduleTask();
    other = nullptr;
    EXPECT_FALSE(t->taskScheduled()) << "what is brought while it closes asks for no run";
}

/// A random program of handlers that bring and run each other, take their time, throw and end it all, beside
/// a model: who waits, and whether the task is scheduled.
class HandlersProgram : HandTree {
  public:
    explicit HandlersProgram(Random& random) : random_(random) {}
    ~HandlersProgram() { close(); }

    void step() {
        change(5);
        run(false);
        ASSERT_EQ(1 + std::ssize(waiting_), owned_.use_count());
        ASSERT_EQ(scheduled_, t_->taskScheduled());
        ASSERT_TRUE(!handlers_ || work_ == t_->taskWorkCount());
    }

  private:
    struct Run {
        std::chrono::nanoseconds start;
        bool isOver = false;
    };

    void schedule() { scheduled_ = !t_->taskSuspendedForTest(); }
    void close() {
        waiting_.clear();
        handlers_ = nullptr;
    }
    void bring() {
        int const id = ++last_;
        std::size_t const how = random_.below(4);
        atOnce_ = how > 1 && handlers_ && !running_.empty() ? id : 0;
        if (handlers_ && atOnce_ == 0) {
            waiting_.push_back(id);
            running_.empty() ? schedule() : void();
        }
        std::shared_ptr<void> const brings(nullptr, [this, owned = owned_](void*) {
            if (!handlers_) // when it is destroyed, too
                asio::post(executor_, [owned] { FAIL(); });
        });
        auto const handler = [this, id, brings] { called(id); };
        switch (how) {
        case 0: return asio::post(any_, handler);
        case 1: return asio::dispatch(never_, handler);
        case 2: return asio::dispatch(executor_, handler);
        default: asio::dispatch(asio::prefer(never_, asio::execution::blocking.possibly), handler);
        }
    }
    void called(int id) {
        if (std::exchange(atOnce_, 0) == id)
            return change(2);
        ASSERT_TRUE(!running_.empty() && !running_.back().isOver && !waiting_.empty());
        ASSERT_EQ(waiting_.front(), id);
        waiting_.pop_front();
        ++work_;
        change(3);
        bool const throws = random_.oneIn(8), forced = t_->taskForceYieldInTest();
        Run& run = running_.back();
        run.isOver = throws || forced || !handlers_ || steady.now() - run.start >= 20ms;
        if (throws)
            throw std::runtime_error("no route");
    }
    void change(std::size_t limit) {
        for (std::size_t left = random_.below(limit); left > 0; --left)
            switch (random_.below(12)) {
            case 0: t_->unscheduleTask(), scheduled_ = false; break;
            case 1: t_->taskSuspendedForTestIs(!(scheduled_ = t_->taskSuspendedForTest())); break;
            case 2: t_->taskForceYieldInTestIs(random_.oneIn(4)); break;
            case 3: running_.size() < 3 ? run(true) : void(); break;
            case 4: random_.oneIn(20) ? close() : void(); break;
            case 5:
            case 6: steady.advance(5ms); break;
            default: bring();
            }
    }
    void run(bool byHand) {
        if (bool const runs = std::exchange(scheduled_, false); !byHand && !runs)
            return root->handleSchedulerRun();
        running_.push_back({steady.now()});
        byHand ? t_->taskRunFromTest() : root->handleSchedulerRun();
        EXPECT_TRUE(waiting_.empty() || running_.back().isOver);
        running_.pop_back();
        if (!waiting_.empty())
            schedule();
    }

    Random& random_;
    Ptr<Task> const t_ = task();
    Ptr<EventLoop> const loop_ = EventLoop::EventLoopIs();
    Ptr<TaskHandlers> handlers_ = TaskHandlers::TaskHandlersIs(t_, loop_);
    TaskExecutor const executor_ = handlers_->executor();
    asio::any_io_executor const any_ = executor_; // as sockets, timers and coroutines carry it
    asio::any_io_executor const never_ = asio::require(any_, asio::execution::blocking.never);
    std::shared_ptr<int> const owned_ = std::make_shared<int>(); // by each handler
    std::deque<int> waiting_;
    std::vector<Run> running_; // within each other
    bool scheduled_ = false;
    int last_ = 0, atOnce_ = 0;
    U64 work_ = 0;
};

TEST(TaskHandlersModel, CallsThoseThatWaitInTheirOrderInAsFewRunsAsTheQuantumAllows) {
    TraceLog const log({}, "Mox");
    Random random;
    for (std::size_t programs = operations(500); programs > 0 && !testing::Test::HasFailure(); --programs)
        for (HandlersProgram program(random); !random.oneIn(200) && !testing::Test::HasFailure();)
            program.step();
}

} // namespace
