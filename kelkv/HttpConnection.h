#pragma once

#include "Listener.h"

#include <task/Task.h>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <chrono>
#include <string>

namespace KelKv {

class Daemon;

/// One request of a browser or a metrics collector, and its answer: nothing but GET of a few paths. Whoever
/// reaches it may look at everything that the scheduler measured; on a loopback address that is nobody's page
/// from elsewhere, so there a request has to name this host as its own.
///
/// The request is read by handlers, the answer is made by a task, so that it is measured as all work is.
/// To a request that comes while the scheduler is suspended the handler makes it: that is when an operator
/// looks.
///
/// Lifetime: its listener holds it until `close()`; so does each handler under way.
class HttpConnection : public Kel::Task::Notifiee {
  public:
    static constexpr std::uint32_t headerLimit = 8192;
    /// For the whole exchange.
    static constexpr std::chrono::seconds patience{30};

    HttpConnection(Daemon& daemon, Listener<HttpConnection>& listener, boost::asio::ip::tcp::socket socket);
    /// Begins to read.
    void start();
    void close();

    void onTaskRun() override;

  private:
    using Error = boost::system::error_code;
    using Status = boost::beast::http::status;

    void onRequest(Error error);
    void answer();
    bool namesThisHost() const;
    void answerIs(Status status, char const* contentType, std::string body);
    void send();
    void drain();

    Daemon& daemon_;
    Listener<HttpConnection>& listener_;
    boost::beast::tcp_stream stream_;
    boost::beast::flat_buffer input_{headerLimit};
    boost::beast::http::request_parser<boost::beast::http::empty_body> request_;
    boost::beast::http::response<boost::beast::http::string_body> response_;
    bool isMalformed_ = false;
    bool isWaiting_ = false;   // for its answer
    Mox::Ptr<Kel::Task> task_; // null: closed
};

} // namespace KelKv
