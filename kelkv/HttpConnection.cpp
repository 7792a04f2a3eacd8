#include "HttpConnection.h"

#include "Daemon.h"
#include "HttpPage.h"

#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <utility>

namespace KelKv {

namespace http = boost::beast::http;

HttpConnection::HttpConnection(Daemon& daemon, Listener<HttpConnection>& listener,
                               boost::asio::ip::tcp::socket socket)
    : daemon_(daemon), listener_(listener), stream_(std::move(socket)),
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
    isWaiting_ = true;
    if (daemon_.root()->suspended())
        onTaskRun();
    else
        task_->scheduleTask();
}

void HttpConnection::onTaskRun() {
    if (!std::exchange(isWaiting_, false)) // an operator may run any task
        return;
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
    else if (request.version() >= 11 && request.count(http::field::host) != 1)
        answerIs(Status::bad_request, "text/plain", "one host has to be named\n");
    else if (!namesThisHost())
        answerIs(Status::misdirected_request, "text/plain", "not this host\n");
    else if (path == "/")
        answerIs(Status::ok, "text/html; charset=utf-8", httpPage);
    else if (path == "/metrics")
        answerIs(Status::ok, "text/plain; version=0.0.4; charset=utf-8", daemon_.metrics());
    else if (path == "/trace.json")
        answerIs(Status::ok, "application/json", daemon_.trace());
    else
        answerIs(Status::not_found, "text/plain", "there is /, /metrics and /trace.json\n");
}

/// A page from elsewhere whose name resolves to this host (DNS rebinding) has another name.
bool HttpConnection::namesThisHost() const {
    Error error;
    auto here = stream_.socket().local_endpoint(error).address();
    if (here.is_v6() && here.to_v6().is_v4_mapped())
        here = boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, here.to_v6());
    std::string_view host = request_.get()[http::field::host];
    if (error || !here.is_loopback() || host.empty())
        return true;
    bool const hasBrackets = host.front() == '[';
    host = host.substr(0, hasBrackets ? host.find(']') : host.find(':'));
    if (hasBrackets)
        host.remove_prefix(1);
    boost::asio::ip::make_address(host, error);
    return !error || boost::beast::iequals(host, "localhost");
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
    if (request_.get().method() == http::verb::head)
        response_.body().clear(); // its length stays in the header
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
    listener_.closed(self);
}

} // namespace KelKv
