#pragma once

#include "Connection.h"

#include <scheduler/TaskSchedulerEventLoop.h>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <chrono>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace KelKv {

/// One request of a browser or a metrics collector, and its answer: nothing but GET of a few paths. Whoever
/// reaches it may look at everything that the scheduler measured; on a loopback address that is nobody's page
/// from elsewhere, so there a request has to name this host as its own.
///
/// To a request that comes while the scheduler is suspended the handler makes the answer: that is when an
/// operator looks.
///
/// Lifetime: the pages outlive it.
class HttpConnection : public Connection {
  public:
    struct Page {
        std::string_view path;
        char const* contentType;
        std::function<std::string()> body;
    };

    static constexpr std::uint32_t headerLimit = 8192;
    /// For the whole exchange.
    static constexpr std::chrono::seconds patience{30};

    HttpConnection(Mox::Ptr<Kel::TaskSchedulerEventLoop> const& root, std::span<Page const> pages,
                   Socket socket);

    void onTaskRun() override;
    /// The client is told, if nothing was sent yet.
    void onException(std::exception_ptr thrown) noexcept override;

  private:
    using Status = boost::beast::http::status;

    void onStart() override;
    void onClose() override { stream_.close(); }

    void onRequest(Error error);
    void answer();
    void answerPage(std::string_view path);
    bool namesThisHost() const;
    void answerIs(Status status, char const* contentType, std::string body);
    void send();
    void drain();

    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root_;
    std::span<Page const> const pages_;
    boost::beast::tcp_stream stream_;
    boost::beast::flat_buffer input_{headerLimit};
    boost::beast::http::request_parser<boost::beast::http::empty_body> request_;
    boost::beast::http::response<boost::beast::http::string_body> response_;
    bool isMalformed_ = false;
    bool isWaiting_ = false; // for its answer
    bool isSending_ = false;
};

} // namespace KelKv
