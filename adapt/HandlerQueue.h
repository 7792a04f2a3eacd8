#pragma once

#include <task/Task.h>

#include <boost/intrusive/slist.hpp>

#include <memory>
#include <type_traits>
#include <utility>

namespace boost::asio {
class io_context;
}

namespace Kel {

/// The handlers that wait for the runs of a task: what TaskHandlers shares with its executors, and of no use
/// without them.
///
/// Thread rule: that of the task. Lifetime: counted, as executors may be kept anywhere. It knows its task
/// until it is closed; from then on it destroys what it is given.
class MOX_EXPORT HandlerQueue : public Mox::PtrInterface {
  public:
    HandlerQueue(Task* task, boost::asio::io_context& ioContext);
    ~HandlerQueue() override;

    boost::asio::io_context& ioContext() const { return ioContext_; }
    /// Whether a handler is being called, so that another one may be called at once. It may have had the
    /// queue closed, behind which none is called any more.
    bool isRunning() const { return depth_ > 0 && task_; }

    /// Has the function called, once, in a run of the task; destroys it when the queue is closed.
    template <class F> void append(F&& function) {
        if (task_)
            appendHandler(*new HandlerOf<std::decay_t<F>>(std::forward<F>(function)));
    }
    /// Calls handlers until none is left, or the task should yield; then the task schedules itself. What a
    /// handler throws ends the run.
    void run();
    void close();

  private:
    struct Handler : boost::intrusive::slist_base_hook<> {
        virtual ~Handler() = default;
        virtual void call() = 0;
    };
    template <class F> struct HandlerOf final : Handler {
        template <class From> explicit HandlerOf(From&& from) : function(std::forward<From>(from)) {}
        void call() override {
            std::unique_ptr<HandlerOf> self(this);
            F moved(std::move(function));
            self.reset(); // the call may want the memory for the next handler
            std::move(moved)();
        }
        F function;
    };
    class Run;

    void appendHandler(Handler& handler);
    void callFirst();

    Task* task_; // null once closed
    boost::asio::io_context& ioContext_;
    boost::intrusive::slist<Handler, boost::intrusive::cache_last<true>> handlers_;
    Mox::U32 depth_ = 0; // of runs, which nest when a handler turns the loop
};

} // namespace Kel
