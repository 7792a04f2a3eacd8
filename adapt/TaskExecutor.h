#pragma once

#include <adapt/HandlerQueue.h>

#include <boost/asio/execution.hpp>
#include <boost/asio/io_context.hpp>

namespace Kel {

/// An executor in the sense of Asio, whose functions are called in the runs of a task; made by TaskHandlers.
///
/// Give it to `co_spawn`, `post`, `dispatch` and `bind_executor`, and to sockets and timers, which then live
/// on the io_context of the event loop and complete in runs of the task. `dispatch` from inside such a run
/// calls at once (blocking.possibly, the default); what has required blocking.never always waits its turn.
///
/// Thread rule: that of the task, copies included; from other threads post to the io_context, and from there
/// to the task. Lifetime: a value. It keeps neither task nor loop alive; once the TaskHandlers has gone,
/// functions given to it are destroyed without a call.
class TaskExecutor {
  public:
    // Counting does not throw, which the pointer does not say.
    TaskExecutor(TaskExecutor const&) noexcept = default;
    TaskExecutor(TaskExecutor&&) noexcept = default;
    TaskExecutor& operator=(TaskExecutor const&) noexcept = default;
    TaskExecutor& operator=(TaskExecutor&&) noexcept = default;

    template <class F> void execute(F&& function) const {
        if (mayCallAtOnce_ && queue_->isRunning())
            std::decay_t<F>(std::forward<F>(function))();
        else
            queue_->append(std::forward<F>(function));
    }

    boost::asio::io_context& query(boost::asio::execution::context_t) const noexcept {
        return queue_->ioContext();
    }
    boost::asio::execution::blocking_t query(boost::asio::execution::blocking_t) const noexcept {
        using Blocking = boost::asio::execution::blocking_t;
        return mayCallAtOnce_ ? Blocking(Blocking::possibly) : Blocking(Blocking::never);
    }
    static constexpr boost::asio::execution::mapping_t query(boost::asio::execution::mapping_t) noexcept {
        return boost::asio::execution::mapping_t::thread;
    }
    /// A loop that carries a root has always something pending: it needs no executor to keep it at work.
    static constexpr boost::asio::execution::outstanding_work_t
    query(boost::asio::execution::outstanding_work_t) noexcept {
        return boost::asio::execution::outstanding_work_t::untracked;
    }
    static constexpr boost::asio::execution::relationship_t
    query(boost::asio::execution::relationship_t) noexcept {
        return boost::asio::execution::relationship_t::fork;
    }

    TaskExecutor require(boost::asio::execution::blocking_t::possibly_t) const { return {queue_, true}; }
    TaskExecutor require(boost::asio::execution::blocking_t::never_t) const { return {queue_, false}; }

    friend bool operator==(TaskExecutor const& a, TaskExecutor const& b) noexcept = default;

  private:
    friend class TaskHandlers;
    TaskExecutor(Mox::Ptr<HandlerQueue> queue, bool mayCallAtOnce) noexcept
        : queue_(std::move(queue)), mayCallAtOnce_(mayCallAtOnce) {}

    Mox::Ptr<HandlerQueue> queue_;
    bool mayCallAtOnce_;
};

static_assert(boost::asio::execution::is_executor<TaskExecutor>::value);

} // namespace Kel
