#include "HttpConnection.h"

#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <algorithm>
#include <utility>

namespace KelKv {

namespace http = boost::beast::http;

HttpConnection::HttpConnection(Mox::Ptr<Kel::TaskSchedulerEventLoop> const& root, std::span<Page const> pages,
                               Socket socket)
    : Connection(root, Kel::TaskPriority::normal, "http"), root_(root), pages_(pages),
      stream_(std::move(socket)) {
    request_.header_limit(headerLimit);
}

void HttpConnection::onStart() {
    stream_.expires_after(patience);
    http::async_read_header(stream_, input_, request_, whileOpen([this](Error error) { onRequest(error); }));
}

void HttpConnection::onRequest(Error error) {
    static auto const& ofTheProtocol = make_error_code(http::error::end_of_stream).category();
    if (error && (error.category() != ofTheProtocol || error == http::error::end_of_stream))
        return close();
    isMalformed_ = static_cast<bool>(error);
    isWaiting_ = true;
    if (root_->suspended())
        onTaskRun();
    else
        task()->scheduleTask();
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
    else
        answerPage(path);
}

void HttpConnection::answerPage(std::string_view path) {
    auto const page = std::ranges::find(pages_, path, &Page::path);
    if (page == pages_.end())
        answerIs(Status::not_found, "text/plain", "there is /, /metrics and /trace.json\n");
    else
        answerIs(Status::ok, page->contentType, page->body());
}

/// The handler of a request calls it, too, when no task runs.
void HttpConnection::onException(std::exception_ptr thrown) noexcept {
    Kel::Task::Notifiee::onException(std::move(thrown));
    if (isSending_)
        return close();
    try {
        answerIs(Status::internal_server_error, "text/plain", "the answer could not be made\n");
        send();
    } catch (...) {
        close();
    }
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
    isSending_ = true;
    http::async_write(stream_, response_, whileOpen([this](Error error) {
                          Error ignored;
                          stream_.socket().shutdown(boost::asio::socket_base::shutdown_send, ignored);
                          error ? close() : drain();
                      }));
}

/// Takes what the client still sends, until it closes or its time is over: a socket that is closed with
/// input unread resets the connection, and the answer may be lost.
void HttpConnection::drain() {
    input_.clear();
    stream_.async_read_some(input_.prepare(headerLimit),
                            whileOpen([this](Error error) { error ? close() : drain(); }));
}

} // namespace KelKv
