// A coroutine whose steps are the runs of a task.

#include <adapt/TaskHandlers.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <array>
#include <iostream>
#include <string>

using boost::asio::use_awaitable;
using Socket = boost::asio::local::stream_protocol::socket;

boost::asio::awaitable<void> echo(Socket& socket) {
    std::array<char, 5> bytes;
    co_await boost::asio::async_read(socket, boost::asio::buffer(bytes), use_awaitable);
    co_await boost::asio::async_write(socket, boost::asio::buffer(bytes), use_awaitable);
}

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    auto const task = Kel::Task::TaskIs(root, Kel::TaskPriority::high, "echo");
    auto const handlers = Kel::TaskHandlers::TaskHandlersIs(task, loop);

    Socket near(loop->ioContext()), far(loop->ioContext());
    boost::asio::local::connect_pair(near, far);
    boost::asio::co_spawn(handlers->executor(), echo(far), boost::asio::detached);

    std::string answer(5, ' ');
    boost::asio::write(near, boost::asio::buffer("hello", 5));
    boost::asio::async_read(near, boost::asio::buffer(answer), // outside of any task
                            [&](boost::system::error_code, std::size_t) { loop->stop(); });
    loop->run();

    std::cout << answer << " after " << task->taskRun() << " runs of " << task->taskName() << "\n";
    return answer == "hello" && task->taskRun() >= 2 ? 0 : 1;
}
