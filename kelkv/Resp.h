#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace KelKv {

/// A request's command and its arguments, which lie in the input that was parsed.
using Arguments = std::span<std::string_view const>;

/// The largest request. One command works within one run, so these bound what it can cost the others.
struct Limits {
    static constexpr std::size_t request = 1 << 20; // bytes, all of it
    static constexpr std::size_t arguments = 1024;
    static constexpr std::size_t inlineLine = 1 << 16; // bytes
};

/// Parses RESP2 requests, and lines of words, from input that comes in pieces.
///
/// A piece costs what it brings: what was parsed of a half-sent request is not looked at again. A client's
/// announcement of a size reserves nothing.
class RequestParser {
  public:
    enum class State { incomplete, complete, malformed };

    /// Goes on with the request at the input's beginning; each call sees what the last one saw, and more.
    State parse(std::string_view input);
    /// Of a complete request, empty for an empty line; good as long as the input stays.
    Arguments arguments() const { return arguments_; }
    /// The bytes of a complete request.
    std::size_t size() const { return at_; }
    /// What is wrong with a malformed one.
    std::string_view error() const { return error_; }
    /// For the next request.
    void reset();

  private:
    bool takeLine(std::string_view input);
    void takeWords(std::string_view line);
    void takeArray(std::string_view line);
    void takeBulkHeader(std::string_view line);
    bool takeBulk(std::string_view input);
    void complete(std::string_view input);
    bool fail(std::string_view error);

    State state_ = State::incomplete;
    std::size_t at_ = 0;        // what is parsed
    std::size_t searched_ = 0;  // where no line ends before
    std::size_t announced_ = 0; // arguments, 0 before the first line
    std::size_t bulkSize_ = 0;
    bool inBulk_ = false;
    std::vector<std::pair<std::size_t, std::size_t>> places_; // of the arguments: begin and size
    std::vector<std::string_view> arguments_;
    std::string_view error_;
};

/// Appends replies to a buffer, which outlives it.
class ReplyWriter {
  public:
    explicit ReplyWriter(std::string& buffer) : buffer_(buffer) {}

    void status(std::string_view text) { line('+', text); }
    /// Control characters become blanks: part of the text may be a client's.
    void error(std::string_view text);
    void integer(std::int64_t number) { numberLine(':', number); }
    void bulk(std::string_view text);
    void null() { buffer_.append("$-1\r\n"); }
    /// The elements follow as replies of their own.
    void array(std::size_t elements) { numberLine('*', static_cast<std::int64_t>(elements)); }

  private:
    void line(char type, std::string_view text);
    void numberLine(char type, std::int64_t number);

    std::string& buffer_;
};

} // namespace KelKv
