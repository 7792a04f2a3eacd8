#include "Resp.h"

#include "Number.h"

#include <algorithm>
#include <charconv>

namespace KelKv {

namespace {
constexpr std::size_t headerLine = 32; // the longest line that holds only a number
}

void RequestParser::reset() {
    state_ = State::incomplete;
    at_ = searched_ = announced_ = 0;
    inBulk_ = false;
    places_.clear();
}

RequestParser::State RequestParser::parse(std::string_view input) {
    while (state_ == State::incomplete && (inBulk_ ? takeBulk(input) : takeLine(input))) {
    }
    if (state_ == State::complete)
        complete(input);
    return state_;
}

bool RequestParser::fail(std::string_view error) {
    state_ = State::malformed;
    error_ = error;
    return false;
}

/// False when the line is not whole yet, or wrong.
bool RequestParser::takeLine(std::string_view input) {
    std::size_t const end = input.find('\n', std::max(at_, searched_));
    searched_ = std::min(end, input.size());
    bool const isInline = announced_ == 0 && at_ < input.size() && input[at_] != '*';
    if (searched_ - at_ > (isInline ? Limits::inlineLine : headerLine))
        return fail("the line is too long");
    if (end == std::string_view::npos)
        return false;
    std::string_view line = input.substr(at_, end - at_);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    if (isInline)
        takeWords(line);
    else if (announced_ == 0)
        takeArray(line);
    else
        takeBulkHeader(line);
    at_ = end + 1;
    return state_ != State::malformed;
}

void RequestParser::takeWords(std::string_view line) {
    for (std::size_t begin = 0; (begin = line.find_first_not_of(" \t", begin)) != std::string_view::npos;) {
        std::size_t const end = std::min(line.find_first_of(" \t", begin), line.size());
        places_.emplace_back(at_ + begin, end - begin);
        begin = end;
    }
    if (places_.size() > Limits::arguments)
        fail("too many arguments");
    else
        state_ = State::complete;
}

void RequestParser::takeArray(std::string_view line) {
    std::int64_t count = 0;
    if (!readNumber(line.substr(1), count) || count > static_cast<std::int64_t>(Limits::arguments))
        fail("invalid number of arguments");
    else if (count <= 0)
        state_ = State::complete;
    else
        announced_ = static_cast<std::size_t>(count);
}

void RequestParser::takeBulkHeader(std::string_view line) {
    std::int64_t size = 0;
    if (!line.starts_with('$'))
        fail("an argument does not begin with '$'");
    else if (!readNumber(line.substr(1), size) || size < 0)
        fail("invalid size of an argument");
    else if (at_ + static_cast<std::uint64_t>(size) > Limits::request)
        fail("the request is too large");
    inBulk_ = true;
    bulkSize_ = static_cast<std::size_t>(size);
}

bool RequestParser::takeBulk(std::string_view input) {
    if (input.size() < at_ + bulkSize_ + 2)
        return false;
    if (input.substr(at_ + bulkSize_, 2) != "\r\n")
        return fail("an argument is longer than announced");
    places_.emplace_back(at_, bulkSize_);
    at_ += bulkSize_ + 2;
    inBulk_ = false;
    if (places_.size() == announced_)
        state_ = State::complete;
    return true;
}

void RequestParser::complete(std::string_view input) {
    arguments_.clear();
    for (auto const& [begin, size] : places_)
        arguments_.push_back(input.substr(begin, size));
}

void ReplyWriter::line(char type, std::string_view text) {
    buffer_ += type;
    buffer_ += text;
    buffer_ += "\r\n";
}

void ReplyWriter::numberLine(char type, std::int64_t number) {
    char digits[20];
    auto const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    line(type, std::string_view(digits, end));
}

void ReplyWriter::error(std::string_view text) {
    std::size_t const begin = buffer_.size();
    buffer_ += "-ERR ";
    buffer_ += text;
    std::replace_if(
        buffer_.begin() + static_cast<std::ptrdiff_t>(begin), buffer_.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
    buffer_ += "\r\n";
}

void ReplyWriter::bulk(std::string_view text) {
    numberLine('$', static_cast<std::int64_t>(text.size()));
    buffer_ += text;
    buffer_ += "\r\n";
}

} // namespace KelKv
