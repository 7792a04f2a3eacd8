#include "RespConnection.h"

#include "Commands.h"

#include <boost/asio/buffer.hpp>

#include <array>
#include <utility>

namespace KelKv {

namespace {

constexpr std::size_t bufferKept = 1 << 18; // bytes of an empty buffer that are not given back

bool wouldBlock(boost::system::error_code error) {
    return error == boost::asio::error::would_block || error == boost::asio::error::try_again;
}

void clear(std::string& buffer) {
    buffer.clear();
    if (buffer.capacity() > bufferKept)
        buffer.shrink_to_fit();
}

} // namespace

RespConnection::RespConnection(Engine& engine, Role const& role, Socket socket)
    : Connection(engine.root, role.priority, role.name), engine_(engine), isOperator_(role.isOperator),
      socket_(std::move(socket)) {
    task()->taskQuantumIs(quantum);
    Error ignored;
    socket_.non_blocking(true, ignored);
    socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
}

void RespConnection::onClose() {
    if (Mox::Ptr<KeyWalk> const walk = std::exchange(walk_, nullptr))
        walk->cancel();
    Error ignored;
    socket_.close(ignored);
}

// Reading

void RespConnection::waitReadable() {
    if (isReading_ || atEnd_ || unanswered().size() >= inputLimit)
        return;
    isReading_ = true;
    socket_.async_wait(Socket::wait_read, whileOpen([this](Error error) {
                           isReading_ = false;
                           if (!error)
                               onReadable();
                       }));
}

void RespConnection::onReadable() {
    if (!receive())
        return close();
    waitReadable();
    serve();
}

/// Has what came in answered, as far as it may be by now.
void RespConnection::serve() {
    if (isOperator_)
        answerAtOnce();
    if (task() && mayAnswer() && !unanswered().empty())
        task()->scheduleTask();
    else
        readOnOrClose();
}

/// False when the connection is broken. All connections read to one place: what is in it is taken at once.
bool RespConnection::receive() {
    static std::array<char, 1 << 16> scratch;
    Error error;
    std::size_t const size = socket_.read_some(boost::asio::buffer(scratch), error);
    input_.append(scratch.data(), size);
    atEnd_ = error == boost::asio::error::eof;
    return !error || atEnd_ || wouldBlock(error);
}

void RespConnection::compactInput() {
    if (answered_ == input_.size())
        clear(input_);
    else if (answered_ >= input_.size() / 2) // so that each byte is moved once or twice at most
        input_.erase(0, answered_);
    else
        return;
    answered_ = 0;
}

// Answering

/// True when there is a whole request, or one that cannot become one.
bool RespConnection::parseNext() { return parser_.parse(unanswered()) != RequestParser::State::incomplete; }

void RespConnection::answerNext() {
    if (parser_.parse(unanswered()) == RequestParser::State::malformed) {
        ReplyWriter(output_).error(std::string("Protocol error: ").append(parser_.error()));
        closing_ = true;
        return;
    }
    if (!parser_.arguments().empty())
        answerCommand();
    answered_ += parser_.size();
    parser_.reset();
}

void RespConnection::answerCommand() {
    CommandContext context{engine_, ReplyWriter(output_), isOperator_};
    isAnswering_ = true;
    answer(context, parser_.arguments());
    isAnswering_ = false;
    if (context.next == CommandContext::Next::walk)
        walk_ = new KeyWalk(engine_.background, engine_.store, *this, std::move(context.pattern));
    closing_ = context.next == CommandContext::Next::close;
}

void RespConnection::onTaskRun() {
    if (isAnswering_) // an operator's command had the connection's own task run
        return;
    Mox::Ptr<RespConnection> const self = this; // closing lets it go
    bool const isDone = answerAll();
    compactInput();
    flush();
    if (task() && !isDone && mayAnswer()) // else the end of the walk, or of the sending, goes on
        task()->scheduleTask();
    readOnOrClose();
}

/// False when it stopped before all requests that have come in were answered.
bool RespConnection::answerAll() {
    while (mayAnswer()) {
        if (!parseNext())
            return true;
        answerNext();
        task()->taskWorkCountInc(1);
        if (task()->taskShouldYield())
            return false;
    }
    return false;
}

/// The scheduler's own commands, and what a client program says to begin and end, do not wait for the
/// scheduler, which may be suspended.
void RespConnection::answerAtOnce() {
    while (task() && mayAnswer() && parser_.parse(unanswered()) == RequestParser::State::complete &&
           isAnsweredAtOnce(parser_.arguments())) {
        answerNext();
        compactInput();
        flush();
    }
}

bool RespConnection::pieceIs(std::string&& piece) {
    Mox::Ptr<RespConnection> const self = this; // closing lets it go
    if (output_.empty())
        output_ = std::move(piece);
    else
        output_ += piece;
    flush();
    return !isWriting_;
}

void RespConnection::walkDone() {
    walk_ = nullptr;
    task()->scheduleTask();
}

// Sending

void RespConnection::flush() {
    Error error;
    while (task() && unsent() > 0 && !isWriting_) {
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

void RespConnection::waitWritable() {
    isWriting_ = true;
    socket_.async_wait(Socket::wait_write, whileOpen([this](Error error) {
                           isWriting_ = false;
                           if (!error)
                               onWritable();
                       }));
}

void RespConnection::onWritable() {
    flush();
    if (!task() || isWriting_)
        return;
    if (walk_)
        walk_->handOver();
    else if (closing_)
        close();
    else
        serve();
}

/// With nothing more to answer for now.
void RespConnection::readOnOrClose() {
    if (!task())
        return;
    bool const isDone = closing_ || (atEnd_ && !task()->taskScheduled());
    if (isDone && !walk_ && unsent() == 0)
        close();
    else
        waitReadable();
}

} // namespace KelKv
