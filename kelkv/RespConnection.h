#pragma once

#include "Connection.h"
#include "Engine.h"
#include "KeyWalk.h"
#include "Resp.h"

#include <string>

namespace KelKv {

/// A client that speaks RESP2.
///
/// A readable socket is read by its handler, which schedules the task. The task answers requests until none
/// is left, its quantum is used (it schedules itself again then), or the client has to wait for something;
/// then it sends what it has in one go. While a walk works for the client, its other requests wait, so that
/// replies come in order.
///
/// A client that does not read its replies is not answered while `outputLimit` bytes are unsent, and once
/// `inputLimit` bytes are unanswered it is not read from.
class RespConnection : public Connection, private KeyWalk::Client {
  public:
    struct Role {
        char const* name; // of the task
        Kel::TaskPriority priority;
        bool isOperator;
    };

    static constexpr std::size_t inputLimit = Limits::request + (1 << 16);
    static constexpr std::size_t outputLimit = 1 << 20;
    static constexpr Mox::Seconds quantum = 0.0002;

    RespConnection(Engine& engine, Role const& role, Socket socket);

    void onTaskRun() override;

  private:
    void onStart() override { waitReadable(); }
    void onClose() override;
    bool pieceIs(std::string&& piece) override;
    void walkDone() override;
    void walkFailed() noexcept override { close(); }

    void waitReadable();
    void waitWritable();
    void onReadable();
    void onWritable();
    bool receive();

    bool mayAnswer() const { return !walk_ && !closing_ && unsent() < outputLimit; }
    std::string_view unanswered() const { return std::string_view(input_).substr(answered_); }
    std::size_t unsent() const { return output_.size() - sent_; }
    bool parseNext();
    void answerNext();
    void answerCommand();
    bool answerAll();
    void answerAtOnce();
    void serve();
    void readOnOrClose();
    void compactInput();
    void flush();

    Engine& engine_;
    bool const isOperator_;
    Socket socket_;

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
    Mox::Ptr<KeyWalk> walk_;
};

} // namespace KelKv
