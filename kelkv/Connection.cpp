#include "Connection.h"

#include <mox/SteadyClock.h>
#include <scheduler/TaskScheduler.h>

#include <boost/asio/buffer.hpp>
#include <boost/scope_exit.hpp>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <string>

namespace KelKv {

namespace {
/// Longer than a high task waits in a process that is merely busy.
constexpr std::chrono::milliseconds patience{20};

bool wouldBlock(Connection::Error error) {
    return error == boost::asio::error::would_block || error == boost::asio::error::try_again;
}
/// A client that vanished without a word would keep its place for ever: the system asks after it.
void keepAlive(Connection::Socket& socket) {
    int const silence = 300; // seconds until it asks
    Connection::Error ignored;
    socket.set_option(boost::asio::socket_base::keep_alive(true), ignored);
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPIDLE, &silence, sizeof silence);
}

} // namespace

Connection::Connection(Mox::Ptr<Kel::TaskScheduler> const& scheduler,
                       Mox::Ptr<Kel::TaskScheduler> const& ofMore, Role const& role, Socket socket)
    : role_(role), schedulerOfMore_(ofMore), task_(Kel::Task::TaskIs(scheduler, role.priority, role.name)),
      socket_(std::move(socket)), deadline_(socket_.get_executor()), patience_(socket_.get_executor()) {
    Error ignored;
    socket_.non_blocking(true, ignored);
    socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    keepAlive(socket_);
    task_->taskQuantumIs(quantum);
    notifierIs(task_);
}

void Connection::start(std::function<void()> closed) {
    closed_ = std::move(closed);
    onStart();
}

void Connection::close() {
    if (!isOpen())
        return;
    Mox::Ptr<Connection> const self = this;
    notifierIs(nullptr);
    if (more_)
        more_->notifierIs(nullptr);
    turn_ = nullptr;
    task_ = later_ = nullptr;
    patience_.cancel();
    deadline_.cancel();
    onClose();
    Error ignored;
    socket_.close(ignored);
    closed_();
}

void Connection::onException(std::exception_ptr thrown) noexcept {
    Kel::Task::Notifiee::onException(std::move(thrown));
    close();
}

void Connection::onTaskRun() { workIn(*task_); }

void Connection::workIn(Kel::Task& task) {
    if (isWorking_)
        return;
    isHeld_ = false;
    patience_.cancel();
    turn_ = &task;
    work();
}

/// Closing lets it go. An operator's command may have the connection's own tasks run.
void Connection::work() {
    Mox::Ptr<Connection> const self = this;
    isWorking_ = true;
    BOOST_SCOPE_EXIT_ALL(this) {
        isWorking_ = false;
        turn_ = nullptr;
    };
    onWork();
}

/// What waits for a turn behind others keeps its place there, also when the allowance has grown meanwhile.
void Connection::needsWork() {
    bool const isMuch = (later_ && later_->taskScheduled()) || allowance_.isSpent();
    (isMuch ? more() : *task_).scheduleTask();
    if (!role_.isOperator)
        return;
    patience_.expires_after(isHeld_ ? std::chrono::milliseconds(0) : patience);
    patience_.async_wait(whileOpen([this] { workInItsPlace(); }));
}

Kel::Task& Connection::more() {
    if (!later_) {
        later_ =
            Kel::Task::TaskIs(schedulerOfMore_, Kel::TaskPriority::low, std::string(role_.name) + ";more");
        later_->taskQuantumIs(quantum);
        more_ = new More(later_, *this);
    }
    return *later_;
}

void Connection::workInItsPlace() {
    isHeld_ = true;
    task_->unscheduleTask();
    if (later_)
        later_->unscheduleTask();
    turnEnd_ = Mox::SteadyClock::now() + Mox::toNanoseconds(quantum);
    work();
}

void Connection::closeAfter(std::chrono::milliseconds time) {
    closesAt_ = std::chrono::steady_clock::now() + time;
    if (!waitsForEnd_ || closesAt_ < deadline_.expiry())
        waitForEnd();
}

/// A time that was put off is looked at when the timer fires: each that is armed anew leaves a handler
/// behind, and some clients put theirs off with every command.
void Connection::waitForEnd() {
    waitsForEnd_ = true;
    deadline_.expires_at(closesAt_);
    deadline_.async_wait(whileOpen([this] {
        waitsForEnd_ = false;
        std::chrono::steady_clock::now() < closesAt_ ? waitForEnd() : close();
    }));
}

/// A turn of the task that goes ahead of others ends with the allowance.
bool Connection::mayGoOn() {
    if (!isOpen())
        return false;
    if (isHeld_)
        return Mox::SteadyClock::now() < turnEnd_;
    return !turn().taskShouldYield() && !(isAhead() && allowance_.isSpent());
}

// The socket

/// All connections read to one place. A turn that goes ahead of others reads what the allowance may cover. A
/// read that fills the place may have left something, and so may be followed by another.
std::string_view Connection::receive() {
    static std::array<char, 1 << 16> place;
    std::size_t const most = isAhead() ? Allowance::burst : place.size();
    Error error;
    std::size_t const size = socket_.read_some(boost::asio::buffer(place, most), error);
    isReadable_ = size == most;
    atEnd_ = error == boost::asio::error::eof;
    spend(size);
    if (error && !atEnd_ && !wouldBlock(error))
        close();
    return {place.data(), size};
}

std::size_t Connection::send(std::string_view bytes) {
    Error error;
    std::size_t const size = socket_.write_some(boost::asio::buffer(bytes), error);
    spend(size);
    if (wouldBlock(error))
        waitWritable();
    else if (error)
        close();
    return size;
}

void Connection::shutDown() {
    Error ignored;
    socket_.shutdown(Socket::shutdown_send, ignored);
}

void Connection::waitReadable() {
    if (waitsReadable_ || isReadable_ || atEnd_)
        return;
    waitsReadable_ = true;
    socket_.async_wait(Socket::wait_read, whileOpen([this] {
                           waitsReadable_ = false;
                           isReadable_ = true;
                           needsWork();
                       }));
}

void Connection::waitWritable() {
    isFull_ = true;
    socket_.async_wait(Socket::wait_write, whileOpen([this] {
                           isFull_ = false;
                           needsWork();
                       }));
}

} // namespace KelKv
