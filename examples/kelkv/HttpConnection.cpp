#include "HttpConnection.h"

#include "Daemon.h"
#include "HttpPage.h"
#include "HttpPort.h"

#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <utility>

namespace KelKv {

namespace http = boost::beast::http;

HttpConnection::HttpConnection(Daemon& daemon, HttpPort& port, boost::asio::ip::tcp::socket socket)
    : daemon_(daemon), port_(port), stream_(std::move(socket)),
      task_(Kel::Task::TaskIs(daemon.root(), Kel::TaskPriority::normal, "http")) {
    request_.header_limit(headerLimit);
    notifierIs(task_);
}

void HttpConnection::start() {
    stream_.expires_after(patience);
    http::async_read_header(stream_, input_, request_,
                            [self = Mox::Ptr<HttpConnection>(this)](Error error, std::size_t) {
                                if (self->task_)
                                    self->onRequest(error);
                            });
}

void HttpConnection::onRequest(Error error) {
    static auto const& ofTheProtocol = make_error_code(http::error::end_of_stream).category();
    if (error && (error.category() != ofTheProtocol || error == http::error::end_of_stream))
        return close();
    isMalformed_ = static_cast<bool>(error);
    task_->scheduleTask();
}

void HttpConnection::onTaskRun() {
    Mox::Ptr<HttpConnection> const self = this; // closing lets it go
    answer();
    send();
}

void HttpConnection::answer() {
    auto const& request = request_.get();
    auto const path = request.target().substr(0, request.target().find('?'));
    if (isMalformed_)
        answerIs(Status::bad_request, "text/plain", "malformed request\n");
    else if (request.method() != http::verb::get)
        answerIs(Status::method_not_allowed, "text/plain", "GET only\n");
    else if (path == "/")
        answerIs(Status::ok, "text/html; charset=utf-8", httpPage);
    else if (path == "/metrics")
        answerIs(Status::ok, "text/plain; version=0.0.4; charset=utf-8", daemon_.metrics());
    else if (path == "/trace.json")
        answerIs(Status::ok, "application/json", daemon_.trace());
    else
        answerIs(Status::not_found, "text/plain", "there is /, /metrics and /trace.json\n");
}

void HttpConnection::answerIs(Status status, char const* contentType, std::string body) {
    response_.result(status);
    response_.set(http::field::content_type, contentType);
    response_.set(http::field::cache_control, "no-store");
    response_.set("X-Content-Type-Options", "nosniff");
    response_.set("Content-Security-Policy", "default-src 'none'; script-src 'unsafe-inline'; "
                                             "style-src 'unsafe-inline'; connect-src 'self'");
    if (status == Status::method_not_allowed)
        response_.set(http::field::allow, "GET");
    response_.body() = std::move(body);
    response_.keep_alive(false);
    response_.prepare_payload();
}

void HttpConnection::send() {
    http::async_write(stream_, response_, [self = Mox::Ptr<HttpConnection>(this)](Error error, std::size_t) {
        Error ignored;
        self->stream_.socket().shutdown(boost::asio::socket_base::shutdown_send, ignored);
        if (error)
            self->close();
        else if (self->task_)
            self->drain();
    });
}

/// Takes what the client still sends, until it closes or its time is over: a socket that is closed with
/// input unread resets the connection, and the answer may be lost.
void HttpConnection::drain() {
    input_.clear();
    stream_.async_read_some(input_.prepare(headerLimit),
                            [self = Mox::Ptr<HttpConnection>(this)](Error error, std::size_t) {
                                if (error)
                                    self->close();
                                else if (self->task_)
                                    self->drain();
                            });
}

void HttpConnection::close() {
    if (!task_)
        return;
    Mox::Ptr<HttpConnection> const self = this;
    notifierIs(nullptr);
    task_ = nullptr;
    stream_.close();
    port_.closed(self);
}

} // namespace KelKv
