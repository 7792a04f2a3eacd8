#pragma once

#include "Allowance.h"

#include <mox/SteadyClock.h>
#include <task/Task.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

namespace KelKv {

/// One client of any port: a socket, whose handlers only tell that something came or can be sent, and a task
/// that does all the work, so that the work is measured and takes turns as all work does.
///
/// What goes beyond the client's allowance is the work of a second task, of `low` priority, whose name ends
/// with ";more" (so that an operator finds one of the two by name). So a client that asks little is answered
/// ahead of hundreds that ask much, and those take turns among themselves.
///
/// An operator's connection is there for when the scheduler does not run: what its task has not begun a
/// moment after it was scheduled, because the scheduler is suspended or switched off or never gets to it, a
/// timer's handler does in its place, in slices as long as the task's.
///
/// Lifetime: its listener holds it from `start()` until it has closed; so does each handler under way.
class Connection : public Kel::Task::Notifiee {
  public:
    using Socket = boost::asio::ip::tcp::socket;
    using Error = boost::system::error_code;

    /// How it gets its turn.
    struct Role {
        char const* name; // of the task
        Kel::TaskPriority priority;
        bool isOperator;
    };

    static constexpr Mox::Seconds quantum = 0.0002;

    /// Begins to read. Calls `closed` once, when it has closed.
    void start(std::function<void()> closed);
    void close();
    /// Since when nothing is under way, of those that may be closed to make room for another.
    virtual std::optional<Mox::SteadyClock::TimePoint> idleSince() const { return std::nullopt; }

    void onTaskRun() override;
    /// Traced; the connection closes. So end exceptions of a task's run and of a handler, for which nobody
    /// else would catch them.
    void onException(std::exception_ptr thrown) noexcept override;

  protected:
    /// `ofMore` is the scheduler of what is beyond the allowance.
    Connection(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Mox::Ptr<Kel::TaskScheduler> const& ofMore,
               Role const& role, Socket socket);

    bool isOpen() const { return task_ != nullptr; }
    /// So many requests were answered.
    void worked(Mox::U64 count) { turn().taskWorkCountInc(count); }
    virtual void onStart() = 0;
    virtual void onClose() = 0;
    /// Does what there is to do until it is done, or `mayGoOn()` says no; then it asks for another turn.
    virtual void onWork() = 0;

    /// Asks for a call of `onWork()`: something came, or there is more to do than fits into a turn.
    void needsWork();
    /// Whether the turn under way goes ahead of those that ask much.
    bool isAhead() const { return &turn() == task_.ptr(); }
    /// Whether it is in the task's place, of an operator, while the scheduler does not run.
    bool isInItsPlace() const { return isHeld_; }
    /// Counts what is no reading or sending, but costs as much.
    void spend(std::size_t bytes) { allowance_.spend(bytes); }
    /// Closes when the time is over, unless that is asked for again by then.
    void closeAfter(std::chrono::milliseconds time);
    /// Whether the turn under way may last any longer. Asked between two steps, so that each has one.
    bool mayGoOn();

    Socket const& socket() const { return socket_; }
    /// Something may have come, or the end: `receive()` tells.
    bool isReadable() const { return isReadable_; }
    bool atEnd() const { return atEnd_; } // the client sends no more
    bool isWritable() const { return !isFull_; }
    /// Takes what came, until the next call; nothing when nothing came, or when the connection is broken, and
    /// closed now.
    std::string_view receive();
    /// Sends what the system takes of it, in bytes; when that is nothing, there will be work once it does.
    std::size_t send(std::string_view bytes);
    /// Sends no more, which the client sees as the end.
    void shutDown();
    /// There will be work when something comes.
    void waitReadable();

  private:
    /// A handler that keeps the connection, and is called if it is not closed by then.
    template <class Handler> auto whileOpen(Handler handler) {
        return [self = Mox::Ptr<Connection>(this), handler](Error error, std::size_t = 0) {
            if (self->isOpen() && !error)
                self->guarded(handler);
        };
    }
    template <class F> void guarded(F work) {
        try {
            work();
        } catch (...) {
            onException(std::current_exception());
        }
    }
    /// Has `onTaskRun()` called by a second task.
    class More : public Kel::Task::Notifiee {
      public:
        More(Mox::Ptr<Kel::Task> const& task, Connection& connection) : connection_(connection) {
            notifierIs(task);
        }
        void onTaskRun() override { connection_.workIn(*notifier()); }
        void onException(std::exception_ptr thrown) noexcept override {
            connection_.onException(std::move(thrown));
        }

      private:
        Connection& connection_;
    };

    Kel::Task& turn() const { return turn_ ? *turn_ : *task_; }
    Kel::Task& more();
    void workIn(Kel::Task& task);
    void work();
    void workInItsPlace();
    void waitWritable();
    void waitForEnd();

    Role const role_;
    Mox::Ptr<Kel::TaskScheduler> const schedulerOfMore_;
    Mox::Ptr<Kel::Task> task_;  // null once it is closed
    Mox::Ptr<Kel::Task> later_; // null until the client asks much or leaves
    Mox::Ptr<More> more_;
    Kel::Task* turn_ = nullptr; // whose run is under way
    Allowance allowance_;
    std::function<void()> closed_;
    bool isWorking_ = false;

    Socket socket_;
    bool isReadable_ = false;
    bool waitsReadable_ = false;
    bool atEnd_ = false;
    bool isFull_ = false; // the system takes no more; waited for
    boost::asio::steady_timer deadline_;
    std::chrono::steady_clock::time_point closesAt_{};
    bool waitsForEnd_ = false;

    // Of an operator's: in the task's place
    boost::asio::steady_timer patience_;
    bool isHeld_ = false; // the task did not run when it was asked for last
    Mox::SteadyClock::TimePoint turnEnd_{};
};

} // namespace KelKv
