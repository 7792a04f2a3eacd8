#pragma once

#include <task/Task.h>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#ifdef BOOST_ASIO_HAS_CO_AWAIT // not with an older compiler of an application

namespace Kel {

/// For a coroutine that works in slices: `co_await Kel::yieldIfNeeded(task)` goes on at once while the task's
/// quantum lasts, and then lets the run end; the coroutine is resumed in the task's next run, in turn with
/// the task's other handlers.
///
/// Requires: the coroutine was spawned on an executor of that task (TaskHandlers).
template <class Executor = boost::asio::any_io_executor>
boost::asio::awaitable<void, Executor> yieldIfNeeded(Mox::Ptr<Task const> task) {
    if (task->taskShouldYield())
        co_await boost::asio::post(boost::asio::use_awaitable_t<Executor>());
}

} // namespace Kel

#endif
