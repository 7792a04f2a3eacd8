#pragma once

#include <task/Task.h>

#include <boost/asio/ip/tcp.hpp>

#include <exception>
#include <functional>
#include <utility>

namespace KelKv {

/// One client of any port: a socket, whose handlers take what comes in, and a task that answers it, so that
/// the work is measured and takes turns as all work does.
///
/// Lifetime: its listener holds it from `start()` until it has closed; so does each handler under way.
class Connection : public Kel::Task::Notifiee {
  public:
    using Socket = boost::asio::ip::tcp::socket;
    using Error = boost::system::error_code;

    /// Begins to read. Calls `closed` once, when it has closed.
    void start(std::function<void()> closed);
    void close();

    /// Traced; the connection closes. So end exceptions of a task's run and of a handler, for which nobody
    /// else would catch them.
    void onException(std::exception_ptr thrown) noexcept override;

  protected:
    Connection(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Kel::TaskPriority priority, char const* name);

    /// Null once it is closed.
    Mox::Ptr<Kel::Task> const& task() const { return task_; }
    virtual void onStart() = 0;
    virtual void onClose() = 0;

    /// A handler that keeps the connection, and is called if it is not closed by then.
    template <class Handler> auto whileOpen(Handler handler) {
        return [self = Mox::Ptr<Connection>(this), handler](Error error, std::size_t = 0) {
            if (!self->task_)
                return;
            try {
                handler(error);
            } catch (...) {
                self->onException(std::current_exception());
            }
        };
    }

  private:
    Mox::Ptr<Kel::Task> task_;
    std::function<void()> closed_;
};

} // namespace KelKv
