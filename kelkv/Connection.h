#pragma once

#include "Resp.h"
#include "Walk.h"

#include <boost/asio/ip/tcp.hpp>

#include <string>

namespace KelKv {

class Daemon;
class Port;

/// One client: a socket, and a task that answers what has come in.
///
/// A readable socket is read by its handler, which schedules the task. The task answers requests until none
/// is left, its quantum is used (it schedules itself again then), or the client has to wait for something;
/// then it sends what it has in one go. While a walk works for the client, its other requests wait, so that
/// replies come in order.
///
/// A client that does not read its replies is not answered while `outputLimit` bytes are unsent, and once
/// `inputLimit` bytes are unanswered it is not read from.
///
/// Lifetime: its port holds it until `close()`; so does each handler under way.
class Connection : public Kel::Task::Notifiee, private WalkClient {
  public:
    using Socket = boost::asio::ip::tcp::socket;

    static constexpr std::size_t inputLimit = Limits::request + (1 << 16);
    static constexpr std::size_t outputLimit = 1 << 20;
    static constexpr Mox::Seconds quantum = 0.0002;

    Connection(Daemon& daemon, Port& port, Socket socket);
    /// Begins to read.
    void start();
    void close();

    void onTaskRun() override;

    // For commands

    Daemon& daemon() const { return daemon_; }
    bool isOperator() const;
    ReplyWriter reply() { return ReplyWriter(output_); }
    /// Replies with the keys that match the pattern, or without a pattern with their number, once all are
    /// walked.
    void walkIs(std::optional<std::string> pattern);
    /// Closes once the replies so far are sent.
    void closeWhenSent() { closing_ = true; }

  private:
    bool pieceIs(std::string&& piece) override;
    void walkDone() override;

    void waitReadable();
    void waitWritable();
    void onReadable();
    void onWritable();
    bool receive();
    void proceed();

    bool mayAnswer() const;
    std::string_view unanswered() const { return std::string_view(input_).substr(answered_); }
    std::size_t unsent() const { return output_.size() - sent_; }
    bool parseNext();
    void answerNext();
    bool answerAll();
    void answerAtOnce();
    void compactInput();
    void flush();
    void goOn();

    Daemon& daemon_;
    Port& port_;
    Socket socket_;
    Mox::Ptr<Kel::Task> task_; // null: closed

    // What came in
    std::string input_;
    std::size_t answered_ = 0; // bytes at the input's beginning
    RequestParser parser_;
    bool isAnswering_ = false;
    bool isReading_ = false;
    bool atEnd_ = false; // the client sends no more

    // What goes out
    std::string output_;
    std::size_t sent_ = 0; // bytes at the output's beginning
    bool isWriting_ = false;
    bool closing_ = false;
    Mox::Ptr<Walk> walk_;
};

} // namespace KelKv
