#include "Connection.h"

#include "Commands.h"
#include "Daemon.h"

#include <boost/asio/buffer.hpp>

#include <utility>

namespace KelKv {

using boost::system::error_code;

namespace {

constexpr std::size_t bufferKept = 1 << 18; // bytes of an empty buffer that are not given back

bool wouldBlock(error_code error) {
    return error == boost::asio::error::would_block || error == boost::asio::error::try_again;
}

void clear(std::string& buffer) {
    buffer.clear();
    if (buffer.capacity() > bufferKept)
        buffer.shrink_to_fit();
}

} // namespace

Connection::Connection(Daemon& daemon, Port& port, Socket socket)
    : daemon_(daemon), port_(port), socket_(std::move(socket)),
      task_(Kel::Task::TaskIs(daemon.root(), port.role().priority, port.role().name)) {
    task_->taskQuantumIs(quantum);
    notifierIs(task_);
    error_code ignored;
    socket_.non_blocking(true, ignored);
    socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
}

bool Connection::isOperator() const { return port_.role().isOperator; }

void Connection::start() { waitReadable(); }

void Connection::close() {
    if (!task_)
        return;
    Mox::Ptr<Connection> const self = this;
    if (Mox::Ptr<Walk> const walk = std::exchange(walk_, nullptr))
        walk->cancel();
    notifierIs(nullptr);
    task_ = nullptr;
    error_code ignored;
    socket_.close(ignored);
    port_.closed(self);
}

// Reading

void Connection::waitReadable() {
    if (isReading_ || atEnd_ || unanswered().size() >= inputLimit)
        return;
    isReading_ = true;
    socket_.async_wait(Socket::wait_read, [self = Mox::Ptr<Connection>(this)](error_code error) {
        self->isReading_ = false;
        if (!error && self->task_)
            self->onReadable();
    });
}

void Connection::onReadable() {
    if (!receive())
        return close();
    waitReadable();
    proceed();
}

/// Has answered what may be answered now.
void Connection::proceed() {
    if (isOperator())
        answerAtOnce();
    if (task_ && mayAnswer() && !unanswered().empty())
        task_->scheduleTask();
    else
        goOn();
}

/// False when the connection is broken.
bool Connection::receive() {
    error_code error;
    auto& scratch = daemon_.scratch();
    std::size_t const size = socket_.read_some(boost::asio::buffer(scratch), error);
    input_.append(scratch.data(), size);
    atEnd_ = error == boost::asio::error::eof;
    return !error || atEnd_ || wouldBlock(error);
}

void Connection::compactInput() {
    if (answered_ == input_.size())
        clear(input_);
    else if (answered_ >= input_.size() / 2) // so that each byte is moved once or twice at most
        input_.erase(0, answered_);
    else
        return;
    answered_ = 0;
}

// Answering

bool Connection::mayAnswer() const { return !walk_ && !closing_ && unsent() < outputLimit; }

/// True when there is a whole request, or one that cannot become one.
bool Connection::parseNext() { return parser_.parse(unanswered()) != RequestParser::State::incomplete; }

void Connection::answerNext() {
    if (parser_.parse(unanswered()) == RequestParser::State::malformed) {
        reply().error(std::string("Protocol error: ").append(parser_.error()));
        return closeWhenSent();
    }
    if (!parser_.arguments().empty()) {
        isAnswering_ = true;
        answer(*this, parser_.arguments());
        isAnswering_ = false;
    }
    answered_ += parser_.size();
    parser_.reset();
}

void Connection::onTaskRun() {
    if (isAnswering_) // an operator's command had the connection's own task run
        return;
    Mox::Ptr<Connection> const self = this; // closing lets it go
    bool const isDone = answerAll();
    compactInput();
    flush();
    if (task_ && !isDone && mayAnswer()) // else the end of the walk, or of the sending, goes on
        task_->scheduleTask();
    goOn();
}

/// False when it stopped before all requests that have come in were answered.
bool Connection::answerAll() {
    while (mayAnswer()) {
        if (!parseNext())
            return true;
        answerNext();
        task_->taskWorkCountInc(1);
        if (task_->taskShouldYield())
            return false;
    }
    return false;
}

/// The scheduler's own commands, and what a client program says to begin and end, do not wait for the
/// scheduler, which may be suspended.
void Connection::answerAtOnce() {
    while (task_ && mayAnswer() && parser_.parse(unanswered()) == RequestParser::State::complete &&
           isAnsweredAtOnce(parser_.arguments())) {
        answerNext();
        compactInput();
        flush();
    }
}

void Connection::walkIs(std::optional<std::string> pattern) {
    walk_ = new Walk(daemon_.background(), daemon_.store(), *this, std::move(pattern));
}

bool Connection::pieceIs(std::string&& piece) {
    Mox::Ptr<Connection> const self = this;
    if (output_.empty())
        output_ = std::move(piece);
    else
        output_ += piece;
    flush();
    return !isWriting_;
}

void Connection::walkDone() {
    walk_ = nullptr;
    task_->scheduleTask();
}

// Sending

void Connection::flush() {
    error_code error;
    while (task_ && unsent() > 0 && !isWriting_) {
        sent_ += socket_.write_some(boost::asio::buffer(output_) + sent_, error);
        if (wouldBlock(error))
            waitWritable();
        else if (error)
            close();
    }
    if (unsent() == 0) {
        clear(output_);
        sent_ = 0;
    }
}

void Connection::waitWritable() {
    isWriting_ = true;
    socket_.async_wait(Socket::wait_write, [self = Mox::Ptr<Connection>(this)](error_code error) {
        self->isWriting_ = false;
        if (!error && self->task_)
            self->onWritable();
    });
}

void Connection::onWritable() {
    flush();
    if (!task_ || isWriting_)
        return;
    if (walk_)
        walk_->resume();
    else if (closing_)
        close();
    else
        proceed();
}

/// With nothing more to answer for now: reads on, or ends.
void Connection::goOn() {
    if (!task_)
        return;
    bool const isDone = closing_ || (atEnd_ && !task_->taskScheduled());
    if (isDone && !walk_ && unsent() == 0)
        close();
    else
        waitReadable();
}

} // namespace KelKv
