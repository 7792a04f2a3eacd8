#include "RespConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/lexical_cast.hpp>

#include <array>
#include <chrono>
#include <utility>

namespace KelKv {

namespace {

constexpr std::size_t requestAlways = 1 << 16; // bytes for which there is always room

bool wouldBlock(boost::system::error_code error) {
    return error == boost::asio::error::would_block || error == boost::asio::error::try_again;
}

template <class Endpoint> std::string textOf(Endpoint const& endpoint, boost::system::error_code error) {
    return error ? std::string() : boost::lexical_cast<std::string>(endpoint);
}

} // namespace

RespConnection::RespConnection(Engine& engine, Role const& role, Socket socket)
    : Connection(engine.root, role, socket.get_executor()), engine_(engine), socket_(std::move(socket)),
      parser_(engine.scavenger), requestBytes_(engine.requestBytes) {
    Error error;
    socket_.non_blocking(true, error);
    socket_.set_option(boost::asio::ip::tcp::no_delay(true), error);
    session_.isOperator = role.isOperator;
    session_.peer = textOf(socket_.remote_endpoint(error), error);
    session_.here = textOf(socket_.local_endpoint(error), error);
    session_.since = session_.lastUsed = Mox::SteadyClock::latest();
    session_.id = ++engine_.lastSession;
    engine_.sessions.push_back(session_);
}

void RespConnection::onClose() {
    if (Mox::Ptr<KeyWalk> const walk = std::exchange(walk_, nullptr))
        walk->cancel();
    session_.unlink();
    left_ = nullptr;
    requestBytes_.sizeIs(0);
    Error ignored;
    socket_.close(ignored);
}

/// Steps until none can be made or the turn is over; what they replied goes out together. A walk that waits
/// for its piece to be sent goes on when that is, in whichever step it was.
void RespConnection::onWork() {
    bool const walkWaits = walk_ && output_.unsent() > 0;
    bool isStep = true;
    do
        isStep = step();
    while (isStep && mayGoOn());
    if (!isOpen() || !sendSome())
        return;
    if (walkWaits && walk_ && output_.unsent() == 0)
        walk_->handOver();
    if (isStep || (output_.unsent() > 0 && !waitsWritable_))
        needsMoreWork();
    else
        rest();
}

/// One thing of those that can be done now; false when there is none. What is answered first makes room for
/// what comes.
bool RespConnection::step() {
    if (output_.unsent() >= LongText::blockSize && !waitsWritable_)
        sendSome();
    else if (left_ && mayAnswer())
        goOn();
    else if (!left_ && mayAnswer() && parser_.state() != RequestParser::State::incomplete)
        answerRequest();
    else if (parser_.state() == RequestParser::State::incomplete && !closing_ && !unparsed().empty())
        parse();
    else if (isReadable_ && unparsed().empty())
        return receive();
    else
        return false;
    return isOpen();
}

/// With nothing to do until something comes, can be sent, or a walk is through.
void RespConnection::rest() {
    bool const isDone = closing_ || (atEnd_ && !left_);
    if (isDone && !walk_ && output_.unsent() == 0)
        return finish();
    if (session_.isOperator)
        closeAfter(engine_.operatorPatience);
    waitReadable();
}

// What comes in

/// All connections read to one place, and keep what came; a walk for the client goes on meanwhile. A read
/// that fills the place may have left something, and so may be followed by another.
bool RespConnection::receive() {
    static std::array<char, 1 << 16> scratch;
    Error error;
    std::size_t const size = socket_.read_some(boost::asio::buffer(scratch), error);
    isReadable_ = size == scratch.size();
    if (error == boost::asio::error::eof)
        atEnd_ = true;
    else if (error && !wouldBlock(error)) {
        close();
        return false;
    }
    if (isShut_)
        return isReadable_;
    input_.assign(scratch.data(), size);
    parsed_ = 0;
    return !input_.empty();
}

void RespConnection::dropInput() {
    input_.clear();
    parsed_ = 0;
}

void RespConnection::parse() {
    parsed_ += parser_.take(unparsed());
    if (unparsed().empty())
        dropInput();
    boundRequest();
}

/// What all clients have under way together is bounded; who is over it loses the request, not the connection.
void RespConnection::boundRequest() {
    requestBytes_.sizeIs(parser_.kept());
    if (!requestBytes_.isOver() || parser_.kept() <= requestAlways ||
        parser_.state() != RequestParser::State::incomplete)
        return;
    parser_.discard();
    requestBytes_.sizeIs(0);
}

// Answering

bool RespConnection::isHttp() const {
    return isFirst_ && parser_.isLine() && parser_.arguments().size() == 3 &&
           parser_.arguments()[2].view.starts_with("HTTP/");
}

/// A browser's page may make any browser send it here: what stands in the lines behind the first is not to be
/// taken for commands.
void RespConnection::answerRequest() {
    ReplyWriter reply(output_, session_.isResp3);
    if (parser_.state() == RequestParser::State::malformed)
        reply.error(std::string("Protocol error: ").append(parser_.error()));
    else if (isHttp()) {
        reply.error("this port does not speak HTTP");
        engine_.log.line("HTTP request closed", session_.peer);
    } else {
        if (parser_.isDiscarded())
            reply.error("the request is too large beside those under way", "OOM");
        else if (!parser_.arguments().empty())
            return answerCommand();
        return requestDone();
    }
    closing_ = isBroken_ = true;
    dropInput();
}

void RespConnection::answerCommand() {
    worked(1);
    session_.lastUsed = Mox::SteadyClock::latest();
    CommandContext context{engine_, session_, ReplyWriter(output_, session_.isResp3)};
    answer(context, parser_.arguments());
    left_ = std::move(context.rest);
    took(context);
}

void RespConnection::goOn() {
    CommandContext context{engine_, session_, ReplyWriter(output_, session_.isResp3)};
    CommandContext::Step step = std::exchange(left_, nullptr); // closing lets go of what is left
    if (step(context) && isOpen())
        left_ = std::move(step);
    took(context);
}

/// What the command, or a step of it, has left to do.
void RespConnection::took(CommandContext const& context) {
    if (!isOpen() || left_) // it may have had the connection closed
        return;
    if (context.next == CommandContext::Next::walk)
        walk_ = new KeyWalk(engine_.background, engine_.store, engine_.walkBytes, *this, context.pattern);
    closing_ = context.next == CommandContext::Next::close;
    requestDone();
}

void RespConnection::requestDone() {
    isFirst_ = false;
    parser_.reset();
    requestBytes_.sizeIs(0);
}

bool RespConnection::pieceIs(std::string&& piece) {
    Mox::Ptr<RespConnection> const self = this; // closing lets it go
    output_.append(std::move(piece));
    while (output_.unsent() > 0 && !waitsWritable_ && sendSome()) {
    }
    return !waitsWritable_;
}

void RespConnection::walkDone() {
    walk_ = nullptr;
    needsWork();
}

// Sending

/// One block at most; false when the connection is closed.
bool RespConnection::sendSome() {
    if (output_.unsent() == 0 || waitsWritable_)
        return true;
    Error error;
    output_.sent(socket_.write_some(boost::asio::buffer(output_.next()), error));
    if (wouldBlock(error))
        waitWritable();
    else if (error)
        close();
    return isOpen();
}

void RespConnection::waitWritable() {
    waitsWritable_ = true;
    socket_.async_wait(Socket::wait_write, whileOpen([this](Error error) {
                           waitsWritable_ = false;
                           if (error)
                               return;
                           needsWork();
                       }));
}

void RespConnection::waitReadable() {
    if (waitsReadable_ || isReadable_ || atEnd_)
        return;
    waitsReadable_ = true;
    socket_.async_wait(Socket::wait_read, whileOpen([this](Error error) {
                           waitsReadable_ = false;
                           if (error)
                               return;
                           isReadable_ = true;
                           needsWork();
                       }));
}

/// Everything is sent. A client that may still be sending is waited for, until it has read why.
void RespConnection::finish() {
    if (atEnd_ || (!isReadable_ && !isBroken_))
        return close();
    if (isShut_)
        return waitReadable();
    isShut_ = true;
    dropInput();
    Error ignored;
    socket_.shutdown(Socket::shutdown_send, ignored);
    closeAfter(std::chrono::seconds(1));
    waitReadable();
}

} // namespace KelKv
