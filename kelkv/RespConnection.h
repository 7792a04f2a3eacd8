#pragma once

#include "Commands.h"
#include "Connection.h"
#include "KeyWalk.h"

#include <string>

namespace KelKv {

/// A client that speaks RESP, 2 or 3.
///
/// A handler that finds the socket readable schedules the task. The task takes what came in, answers it and
/// sends the replies, step by step, until nothing is left, its turn is over (it schedules itself again then),
/// or the client has to wait for something: for a walk over all keys that works for it, or for its own
/// reading of replies. Replies come in the order of requests.
///
/// Nothing that a client does takes more memory than it has room for: it is not read from while a piece of
/// input waits, not answered while `outputLimit` bytes are unsent, and a request that is too large for what
/// all clients together may have under way is answered with an error.
///
/// When it ends, an error in words reaches the client: what is still sent is taken, for a moment, and thrown
/// away, for a socket that is closed with input unread resets the connection, and what it had sent may be
/// lost.
class RespConnection : public Connection, private KeyWalk::Client {
  public:
    static constexpr std::size_t outputLimit = 1 << 20;

    RespConnection(Engine& engine, Role const& role, Socket accepted);

  private:
    /// What it has of requests that are not answered: one that is still coming may be given up.
    class Request : public ByteShare {
      public:
        explicit Request(RespConnection& of) : ByteShare(of.engine_.requestBytes), of_(of) {}
        bool mayGiveUp() const override;
        void giveUp() override;

      private:
        RespConnection& of_;
    };

    void onStart() override;
    void onClose() override;
    void onWork() override;
    bool pieceIs(std::string&& piece) override;
    void walkDone() override;
    void walkFailed() noexcept override { close(); }

    bool step();
    void waitForMore();

    bool takeInput();
    void parse();
    void dropInput();
    void boundRequest();
    void account();
    void operatorIsThere();

    bool hasRequest() const;
    bool isHttp() const;
    void answerRequest();
    void answerCommand();
    void goOn();
    void took(CommandContext const& context);
    void requestDone();

    std::string_view unparsed() const { return std::string_view(input_).substr(parsed_); }
    bool mayAnswer() const;
    bool sendSome();
    void finish();
    void leave();

    Engine& engine_;
    Session session_;

    // What came in
    std::string input_;
    std::size_t parsed_ = 0; // bytes at the input's beginning
    RequestParser parser_;
    Request requestBytes_;
    bool isFirst_ = true; // the request under way

    // What goes out
    CommandContext::Step left_; // of the command under way
    Mox::Ptr<KeyWalk> walk_;
    Output output_;
    ByteShare replyBytes_;
    bool closing_ = false;
    bool isBroken_ = false; // what it sends cannot be answered
    bool isShut_ = false;   // nothing more is sent; what comes is thrown away
};

} // namespace KelKv
