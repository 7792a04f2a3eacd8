#pragma once

#include <task/Task.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <chrono>
#include <string>

namespace KelKv {

class Daemon;
class HttpPort;

/// One request of a browser or a metrics collector, and its answer: nothing but GET of a few paths.
///
/// The request is read by handlers, the answer is made by a task, so that it is measured as all work is.
///
/// Lifetime: its port holds it until `close()`; so does each handler under way.
class HttpConnection : public Kel::Task::Notifiee {
  public:
    static constexpr std::uint32_t headerLimit = 8192;
    /// For the whole exchange.
    static constexpr std::chrono::seconds patience{30};

    HttpConnection(Daemon& daemon, HttpPort& port, boost::asio::ip::tcp::socket socket);
    /// Begins to read.
    void start();
    void close();

    void onTaskRun() override;

  private:
    using Error = boost::system::error_code;
    using Status = boost::beast::http::status;

    void onRequest(Error error);
    void answer();
    void answerIs(Status status, char const* contentType, std::string body);
    void send();
    void drain();

    Daemon& daemon_;
    HttpPort& port_;
    boost::beast::tcp_stream stream_;
    boost::beast::flat_buffer input_{headerLimit};
    boost::beast::http::request_parser<boost::beast::http::empty_body> request_;
    boost::beast::http::response<boost::beast::http::string_body> response_;
    bool isMalformed_ = false;
    Mox::Ptr<Kel::Task> task_; // null: closed
};

} // namespace KelKv
