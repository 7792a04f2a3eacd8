#include "RespConnection.h"

#include "Steps.h"

#include <boost/lexical_cast.hpp>

#include <chrono>
#include <utility>

namespace KelKv {

namespace {

template <class Endpoint> std::string textOf(Endpoint const& endpoint, boost::system::error_code error) {
    return error ? std::string() : boost::lexical_cast<std::string>(endpoint);
}

/// An operator's takes turns with all that clients ask much, and not with each of them.
Mox::Ptr<Kel::TaskScheduler> schedulerOfMore(Engine const& engine, Connection::Role const& role) {
    if (role.isOperator)
        return engine.root;
    return engine.background;
}

} // namespace

RespConnection::RespConnection(Engine& engine, Role const& role, Socket accepted)
    : Connection(engine.root, schedulerOfMore(engine, role), role, std::move(accepted)), engine_(engine),
      parser_(engine.scavenger), requestBytes_(*this), replyBytes_(engine.replyBytes) {
    Error error;
    session_.isOperator = role.isOperator;
    session_.peer = textOf(socket().remote_endpoint(error), error);
    session_.here = textOf(socket().local_endpoint(error), error);
    session_.since = session_.lastUsed = Mox::SteadyClock::latest();
    session_.id = ++engine_.lastSession;
    engine_.sessions.push_back(session_);
}

void RespConnection::onStart() {
    operatorIsThere();
    waitForMore();
}

/// Who asks nothing for long leaves the place to another.
void RespConnection::operatorIsThere() {
    if (session_.isOperator)
        closeAfter(engine_.patience.idleOperator);
}

void RespConnection::onClose() {
    if (Mox::Ptr<KeyWalk> const walk = std::exchange(walk_, nullptr))
        walk->cancel();
    session_.unlink();
    left_ = nullptr;
    requestBytes_.sizeIs(0);
    replyBytes_.sizeIs(0);
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
    if (isStep || (output_.unsent() > 0 && isWritable()))
        needsWork();
    else
        waitForMore();
    account();
}

/// A reply that nobody reads is counted like what others ask.
void RespConnection::account() {
    if (!isOpen())
        return;
    requestBytes_.sizeIs(parser_.kept() + input_.size());
    replyBytes_.sizeIs(output_.unsent());
}

/// While all replies together are over their limit, a client is answered when it has read what it was told.
bool RespConnection::mayAnswer() const {
    return !walk_ && !closing_ && output_.unsent() < (replyBytes_.isOver() ? ByteShare::always : outputLimit);
}

/// One thing of those that can be done now; false when there is none. What is answered first makes room for
/// what comes.
bool RespConnection::step() {
    if (output_.unsent() >= LongText::blockSize && isWritable())
        sendSome();
    else if (left_ && mayAnswer())
        goOn();
    else if (walk_ && isInItsPlace() && output_.unsent() == 0)
        walk_->onTaskRun(); // which no scheduler has run
    else if (hasRequest())
        answerRequest();
    else if (parser_.state() == RequestParser::State::incomplete && !closing_ && !unparsed().empty())
        parse();
    else if (isReadable() && unparsed().empty())
        return takeInput();
    else
        return false;
    return isOpen();
}

/// With nothing to do until something comes, can be sent, or a walk is through.
void RespConnection::waitForMore() {
    bool const isDone = closing_ || (atEnd() && !left_);
    if (isDone && !walk_ && output_.unsent() == 0)
        return finish();
    if (unparsed().empty())
        std::string().swap(input_);
    waitReadable();
}

// What comes in

/// A walk for the client goes on meanwhile.
bool RespConnection::takeInput() {
    std::string_view const came = receive();
    if (isShut_)
        return isReadable();
    input_ = came;
    parsed_ = 0;
    return !input_.empty();
}

void RespConnection::dropInput() {
    input_.clear();
    parsed_ = 0;
}

/// What is a whole request then is answered in the same step, as reading the clock between two costs as much
/// as a short command.
void RespConnection::parse() {
    parsed_ += parser_.take(unparsed());
    if (unparsed().empty())
        dropInput();
    boundRequest();
    if (hasRequest())
        answerRequest();
}

/// What all clients have under way together is bounded; who takes most loses the request, not the connection.
void RespConnection::boundRequest() {
    account();
    if (requestBytes_.isOver())
        engine_.requestBytes.reclaim();
}

/// One that waits behind replies that the client does not read waits for as long as the client likes.
bool RespConnection::Request::mayGiveUp() const {
    bool const waits = of_.parser_.state() == RequestParser::State::incomplete || !of_.mayAnswer();
    return of_.isOpen() && of_.parser_.kept() > always && waits;
}

/// A reply that has begun cannot end in words.
void RespConnection::Request::giveUp() {
    Mox::Ptr<RespConnection> const of = &of_; // closing lets it go
    of->engine_.log.line("requests under way take too much memory: one is given up", of->session_.peer);
    if (of->left_)
        return of->close();
    of->parser_.discard();
    of->account();
}

// Answering

bool RespConnection::hasRequest() const {
    return !left_ && mayAnswer() && parser_.state() != RequestParser::State::incomplete;
}

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
    operatorIsThere();
    CommandContext context{engine_, session_, ReplyWriter(output_, session_.isResp3)};
    answer(context, parser_.arguments());
    left_ = std::move(context.rest);
    took(context);
}

void RespConnection::goOn() {
    spend(stepBytes);
    CommandContext context{engine_, session_, ReplyWriter(output_, session_.isResp3)};
    CommandContext::Step step = std::exchange(left_, nullptr); // closing lets go of what is left
    if (step(context) && isOpen())
        left_ = std::move(step);
    took(context);
}

/// What the command, or a step of it, has left to do.
void RespConnection::took(CommandContext const& context) {
    spend(context.copied);
    if (!isOpen() || left_) // it may have had the connection closed
        return;
    if (context.next == CommandContext::Next::walk)
        walk_ = new KeyWalk(engine_.background, engine_.store, engine_.gatheredBy(session_), *this,
                            context.pattern);
    closing_ = context.next == CommandContext::Next::close;
    requestDone();
}

void RespConnection::requestDone() {
    isFirst_ = isFirst_ && parser_.arguments().empty(); // an empty line is no beginning
    parser_.reset();
}

bool RespConnection::pieceIs(std::string&& piece) {
    Mox::Ptr<RespConnection> const self = this; // closing lets it go
    output_.append(std::move(piece));
    account();
    while (output_.unsent() > 0 && isWritable() && sendSome()) {
    }
    return isWritable();
}

void RespConnection::walkDone() {
    walk_ = nullptr;
    needsWork();
}

// Sending

/// One block at most; false when the connection is closed.
bool RespConnection::sendSome() {
    if (output_.unsent() > 0 && isWritable())
        output_.sent(send(output_.next()));
    return isOpen();
}

/// Everything is sent. A client that may still be sending is waited for, until it has read why.
void RespConnection::finish() {
    if (atEnd() || (!isReadable() && !isBroken_))
        return leave();
    if (!isShut_) {
        isShut_ = true;
        dropInput();
        shutDown();
        closeAfter(std::chrono::seconds(1));
    }
    isReadable() ? needsWork() : waitReadable();
}

/// A close keeps the system longer than most commands keep us, and many clients may leave at once: it comes
/// after what others ask, within a second, so that they take no places.
void RespConnection::leave() {
    if (!isAhead() || session_.isOperator)
        return close();
    spend(Allowance::burst);
    closeAfter(std::chrono::seconds(1));
    needsWork();
}

} // namespace KelKv
