#pragma once

#include "Connection.h"
#include "Engine.h"

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace KelKv {

/// A browser or a metrics collector: GET and HEAD of a few pages, one request after another. Whoever reaches
/// it may look at everything that the scheduler measured; on a loopback address that is nobody's page from
/// elsewhere, so there a request has to name this host as its own.
///
/// A page is made in slices, as fast as the client takes it, and sent as it is made. The time for an
/// exchange, from a request's first byte on, is bounded whatever the client does, and so are the bytes of a
/// request and of what is thrown away at the end.
///
/// While the scheduler is suspended it answers as an operator's connection does: that is when one looks.
///
/// Lifetime: engine and pages outlive it.
class HttpConnection : public Connection {
  public:
    struct Page {
        std::string_view path;
        char const* contentType;
        std::function<SlicedTextPtr()> body;
    };

    static constexpr std::uint32_t headerLimit = 8192;
    static constexpr std::uint32_t bodyLimit = 1 << 16;
    static constexpr std::size_t requestLimit = 1 << 17; // with what frames the body
    static constexpr std::size_t drainLimit = 1 << 20;   // thrown away behind the last answer

    HttpConnection(Engine& engine, std::span<Page const> pages, Socket accepted);

    std::optional<Mox::SteadyClock::TimePoint> idleSince() const override { return idleSince_; }
    /// The client is told, if nothing of the answer was sent yet.
    void onException(std::exception_ptr thrown) noexcept override;

  private:
    using Status = boost::beast::http::status;
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void onStart() override;
    void onWork() override;
    void onClose() override;

    bool step();
    void waitForMore();

    void requestIsNext();
    void takeInput();
    void drained(std::size_t size);
    void parse();

    void answer();
    void answerPage(std::string_view path);
    void answerError(Status status, std::string_view text);
    void answerFailedParse(Error error);
    void headIs(Status status, std::string_view contentType, std::optional<std::size_t> length);
    bool namesThisHost(std::string_view host) const;
    void makeSome();
    void bodyIs(SlicedTextPtr body);

    bool isAnswering() const { return body_ || sent_ < output_.size(); }
    void sendSome();
    void answered();

    Engine& engine_;
    std::span<Page const> const pages_;

    // What comes in
    std::string input_;
    std::optional<Parser> parser_;
    std::size_t requestSize_ = 0; // bytes
    std::optional<Mox::SteadyClock::TimePoint> idleSince_;
    bool needsInput_ = true;

    // The answer
    SlicedTextPtr body_; // what is left to be made of it
    std::string part_;
    bool isChunked_ = false;
    std::string output_;
    std::size_t sent_ = 0; // bytes of the output
    bool isBegun_ = false; // some of the answer is sent
    bool keeps_ = false;   // the connection
    bool isFailed_ = false;
    bool isShut_ = false; // nothing more is sent; what comes is thrown away
    std::size_t drained_ = 0;
};

} // namespace KelKv
