#include "Connection.h"

#include <mox/SteadyClock.h>
#include <scheduler/TaskScheduler.h>

#include <boost/scope_exit.hpp>

#include <string>

namespace KelKv {

namespace {
/// Longer than a high task waits in a process that is merely busy.
constexpr std::chrono::milliseconds patience{20};
/// How long who had more to do than a turn's is taken for one who has.
constexpr Mox::Nanoseconds calm = boost::chrono::milliseconds(100);
} // namespace

Connection::Connection(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Role const& role,
                       boost::asio::any_io_executor const& executor)
    : role_(role), scheduler_(scheduler), task_(Kel::Task::TaskIs(scheduler, role.priority, role.name)),
      patience_(executor), deadline_(executor) {
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

/// A client that never stops sending has one small piece after another, each of which would go ahead of those
/// that ask little.
void Connection::needsWork() {
    bool const isBusy = later_ && Mox::SteadyClock::latest() - lastMore_ < calm;
    schedule(isBusy || (later_ && later_->taskScheduled()) ? *later_ : *task_);
}

void Connection::needsMoreWork() {
    if (!later_) {
        later_ = Kel::Task::TaskIs(scheduler_, role_.priorityOfMore, std::string(role_.name) + ";more");
        later_->taskQuantumIs(quantum);
        more_ = new More(later_, *this);
    }
    lastMore_ = Mox::SteadyClock::latest();
    schedule(*later_);
}

void Connection::schedule(Kel::Task& task) {
    task.scheduleTask();
    if (!role_.isOperator)
        return;
    patience_.expires_after(isHeld_ ? std::chrono::milliseconds(0) : patience);
    patience_.async_wait(whileOpen([this](Error error) {
        if (!error)
            workInItsPlace();
    }));
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
    deadline_.expires_after(time);
    deadline_.async_wait(whileOpen([this](Error error) {
        if (!error)
            close();
    }));
}

bool Connection::mayGoOn() const {
    return isOpen() && (isHeld_ ? Mox::SteadyClock::now() < turnEnd_ : !turn().taskShouldYield());
}

} // namespace KelKv
