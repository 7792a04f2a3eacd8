#include "HttpConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/write.hpp>

#include <algorithm>
#include <charconv>
#include <sstream>
#include <utility>

namespace KelKv {

namespace http = boost::beast::http;

namespace {

constexpr std::size_t sendSize = 1 << 16; // bytes that are sent together

struct Target {
    std::string_view authority; // a host, and a port
    std::string_view path;
};

/// What a request asks for, and of whom: a client that takes us for a proxy says both in one.
Target targetOf(http::request_header<> const& request) {
    constexpr std::string_view scheme = "http://";
    std::string_view text = request.target();
    Target target{request[http::field::host], text};
    if (boost::beast::iequals(text.substr(0, scheme.size()), scheme)) {
        text.remove_prefix(scheme.size());
        std::size_t const end = std::min(text.find_first_of("/?"), text.size());
        target = {text.substr(0, end), text.substr(end)};
        if (!target.path.starts_with('/'))
            target.path = "/";
    }
    target.path = target.path.substr(0, target.path.find('?'));
    return target;
}

/// None when it is no host, or what stands behind it is no port.
std::optional<std::string_view> hostOf(std::string_view authority) {
    bool const hasBrackets = authority.starts_with('[');
    std::size_t const end = std::min(authority.find(hasBrackets ? ']' : ':'), authority.size());
    std::string_view const behind = authority.substr(std::min(end + hasBrackets, authority.size()));
    if (hasBrackets && end == authority.size())
        return std::nullopt;
    if (!behind.empty() && (behind[0] != ':' || behind.find_first_not_of("0123456789", 1) != behind.npos))
        return std::nullopt;
    return authority.substr(hasBrackets, end - hasBrackets);
}

/// Bytes of the empty lines that it begins with.
std::size_t emptyLines(std::string_view input) {
    constexpr std::string_view line = "\r\n";
    std::size_t size = 0;
    while (input.substr(size, line.size()) == line)
        size += line.size();
    return size;
}

} // namespace

HttpConnection::HttpConnection(Engine& engine, std::span<Page const> pages, Socket accepted)
    : Connection(engine.root, engine.root, {"http", Kel::TaskPriority::normal, true}, std::move(accepted)),
      engine_(engine), pages_(pages) {}

void HttpConnection::onStart() {
    requestIsNext();
    waitReadable();
}

void HttpConnection::onClose() { bodyIs(nullptr); }

void HttpConnection::onWork() {
    bool isStep = true;
    do
        isStep = step();
    while (isStep && mayGoOn());
    if (!isOpen())
        return;
    isStep ? needsWork() : waitForMore();
}

/// One thing of those that can be done now; false when there is none.
bool HttpConnection::step() {
    std::size_t const unsent = output_.size() - sent_;
    bool const isEnough = unsent >= sendSize || (unsent > 0 && !body_);
    bool const mayRead = isShut_ || (!isAnswering() && needsInput_);
    if (isEnough && isWritable())
        sendSome();
    else if (body_ && !isEnough)
        makeSome();
    else if (!isAnswering() && !isShut_ && !needsInput_)
        parse();
    else if (mayRead && isReadable())
        takeInput();
    else
        return false;
    return isOpen();
}

void HttpConnection::waitForMore() {
    if (isAnswering())
        return;
    if (atEnd())
        return close();
    waitReadable();
}

// The request

/// From its first byte on the exchange has its time, which nothing renews.
void HttpConnection::requestIsNext() {
    parser_.emplace();
    parser_->eager(true);
    parser_->header_limit(headerLimit);
    parser_->body_limit(bodyLimit);
    requestSize_ = 0;
    needsInput_ = input_.empty();
    isBegun_ = false;
    idleSince_ = needsInput_ ? std::optional(Mox::SteadyClock::now()) : std::nullopt;
    closeAfter(needsInput_ ? engine_.patience.idleHttp : engine_.patience.httpExchange);
}

void HttpConnection::takeInput() {
    std::string_view const came = receive();
    if (!isOpen())
        return;
    if (isShut_)
        return drained(came.size());
    if (!came.empty() && std::exchange(idleSince_, std::nullopt))
        closeAfter(engine_.patience.httpExchange);
    input_ += came;
    needsInput_ = came.empty();
}

void HttpConnection::drained(std::size_t size) {
    drained_ += size;
    if (drained_ > drainLimit)
        close();
}

/// A body is of no use to any page, and is thrown away. So are empty lines before a request, with which some
/// clients end the one before (RFC 9112, 2.2).
void HttpConnection::parse() {
    Error error = http::error::need_more;
    std::size_t taken = parser_->got_some() ? 0 : emptyLines(input_);
    std::string_view const behind = std::string_view(input_).substr(taken);
    if (!behind.empty() && behind != "\r")
        taken += parser_->put(boost::asio::buffer(behind), error);
    input_.erase(0, taken);
    requestSize_ += taken;
    needsInput_ = error == http::error::need_more || input_.empty();
    parser_->get().body().clear();
    if (error && error != http::error::need_more)
        return answerFailedParse(error);
    if (parser_->is_done())
        return answer();
    keeps_ = false;
    if (requestSize_ + input_.size() > requestLimit)
        answerError(Status::payload_too_large, "the request is too large");
    else if (parser_->is_header_done() && parser_->get().count(http::field::expect) > 0)
        answerError(Status::expectation_failed, "send the request in one go");
}

void HttpConnection::answerFailedParse(Error error) {
    bool const isInFirstLine = parser_->get().target().empty();
    keeps_ = false;
    if (error == http::error::header_limit)
        answerError(isInFirstLine ? Status::uri_too_long : Status::request_header_fields_too_large,
                    "the header is too long");
    else if (error == http::error::body_limit)
        answerError(Status::payload_too_large, "the body is too long");
    else
        answerError(Status::bad_request, "malformed request");
}

// The answer

void HttpConnection::answer() {
    auto const& request = parser_->get();
    keeps_ = request.version() >= 11 && request.keep_alive();
    Target const target = targetOf(request);
    auto const host = hostOf(target.authority);
    worked(1);
    if (request.method() != http::verb::get && request.method() != http::verb::head)
        answerError(Status::method_not_allowed, "GET and HEAD only");
    else if (request.version() >= 11 && request.count(http::field::host) != 1)
        answerError(Status::bad_request, "one host has to be named");
    else if (!host)
        answerError(Status::bad_request, "the host is malformed");
    else if (!namesThisHost(*host))
        answerError(Status::misdirected_request, "not this host");
    else
        answerPage(target.path);
}

/// A client from before HTTP/1.1 knows the end of a page, whose length nobody knows beforehand, by the close.
void HttpConnection::answerPage(std::string_view path) {
    auto const page = std::ranges::find(pages_, path, &Page::path);
    if (page == pages_.end())
        return answerError(Status::not_found, "there is /, /metrics and /trace.json");
    isChunked_ = parser_->get().version() >= 11;
    headIs(Status::ok, page->contentType, std::nullopt);
    if (parser_->get().method() == http::verb::get)
        bodyIs(page->body());
}

void HttpConnection::answerError(Status status, std::string_view text) {
    headIs(status, "text/plain", text.size() + 1);
    if (parser_->get().method() != http::verb::head)
        output_.append(text).append("\n");
}

void HttpConnection::headIs(Status status, std::string_view contentType, std::optional<std::size_t> length) {
    http::response<http::empty_body> head(status, 11);
    head.set(http::field::content_type, contentType);
    head.set(http::field::cache_control, "no-store");
    head.set("X-Content-Type-Options", "nosniff");
    head.set("Content-Security-Policy", "default-src 'none'; script-src 'unsafe-inline'; "
                                        "style-src 'unsafe-inline'; connect-src 'self'");
    if (status == Status::method_not_allowed)
        head.set(http::field::allow, "GET, HEAD");
    if (length)
        head.content_length(*length);
    else
        head.chunked(isChunked_);
    head.keep_alive(keeps_);
    std::ostringstream text;
    text << head.base();
    output_ = std::move(text).str();
    sent_ = 0;
}

/// A page from elsewhere whose name resolves to this host (DNS rebinding) has another name.
bool HttpConnection::namesThisHost(std::string_view host) const {
    Error error;
    auto here = socket().local_endpoint(error).address();
    if (here.is_v6() && here.to_v6().is_v4_mapped())
        here = boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, here.to_v6());
    if (error || !here.is_loopback() || host.empty())
        return true;
    boost::asio::ip::make_address(host, error);
    return !error || boost::beast::iequals(host, "localhost");
}

void HttpConnection::makeSome() {
    part_.clear();
    bool const isMore = body_->next(part_);
    char digits[16];
    if (!part_.empty() && isChunked_)
        output_.append(digits, std::to_chars(digits, std::end(digits), part_.size(), 16).ptr).append("\r\n");
    output_ += part_;
    if (!part_.empty() && isChunked_)
        output_ += "\r\n";
    if (isMore)
        return;
    body_ = nullptr;
    if (isChunked_)
        output_ += "0\r\n\r\n";
}

/// One that was not made to its end has gathered what takes a while to free.
void HttpConnection::bodyIs(SlicedTextPtr body) {
    if (SlicedTextPtr rest = std::exchange(body_, std::move(body)))
        engine_.scavenger->add(std::make_unique<RemainsOfText>(std::move(rest)));
}

/// The error takes the place of an answer of which nothing is sent yet.
void HttpConnection::onException(std::exception_ptr thrown) noexcept {
    Kel::Task::Notifiee::onException(std::move(thrown));
    if (!isOpen() || !parser_->is_done() || isBegun_ || std::exchange(isFailed_, true))
        return close();
    try {
        bodyIs(nullptr);
        keeps_ = false;
        answerError(Status::internal_server_error, "the answer could not be made");
        needsWork();
    } catch (...) {
        close();
    }
}

// Sending

void HttpConnection::sendSome() {
    std::size_t const size = send(std::string_view(output_).substr(sent_, 4 * sendSize));
    if (size == 0)
        return;
    isBegun_ = true;
    sent_ += size;
    if (sent_ == output_.size() || sent_ >= sendSize) {
        output_.erase(0, sent_);
        sent_ = 0;
    }
    if (!isAnswering())
        answered();
}

void HttpConnection::answered() {
    if (keeps_)
        return requestIsNext();
    isShut_ = true;
    input_.clear();
    shutDown();
}

} // namespace KelKv
