#include "Reply.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace KelKv {

namespace {
constexpr std::size_t roomKept = 1 << 16; // bytes of an empty buffer that are not given back
}

void Output::append(LongTextPtr text, std::size_t from, std::size_t size) {
    Piece& last = pieces_.back();
    last.textFrom = from;
    last.textSize = size;
    last.text = std::move(text);
    behind_ += last.size();
    pieces_.emplace_back();
}

void Output::append(std::string&& bytes) {
    if (end().empty())
        end() = std::move(bytes);
    else
        end() += bytes;
}

std::size_t Output::unsent() const { return behind_ + pieces_.back().size() - sent_; }

std::string_view Output::next() const {
    Piece const& piece = pieces_.front();
    if (sent_ < piece.bytes.size())
        return std::string_view(piece.bytes).substr(sent_, LongText::blockSize);
    std::size_t const at = sent_ - piece.bytes.size();
    return at < piece.textSize ? piece.text->from(piece.textFrom + at).substr(0, piece.textSize - at)
                               : std::string_view();
}

/// The last piece stays, and a little of its room with it, for the next reply.
void Output::sent(std::size_t size) {
    sent_ += size;
    if (sent_ < pieces_.front().size())
        return;
    sent_ = 0;
    if (pieces_.size() > 1) {
        behind_ -= pieces_.front().size();
        pieces_.pop_front();
        return;
    }
    end().clear();
    if (end().capacity() > roomKept)
        end().shrink_to_fit();
}

void appendNumber(std::string& reply, char type, std::int64_t number) {
    char digits[20];
    auto const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    reply += type;
    reply.append(digits, end).append("\r\n");
}

void appendBulk(std::string& reply, std::string_view text) {
    appendNumber(reply, '$', static_cast<std::int64_t>(text.size()));
    reply.append(text).append("\r\n");
}

void appendTextHead(std::string& reply, std::size_t size, bool isResp3) {
    constexpr std::string_view form = "txt:";
    appendNumber(reply, isResp3 ? '=' : '$', static_cast<std::int64_t>(size + (isResp3 ? form.size() : 0)));
    reply += isResp3 ? form : std::string_view();
}

void ReplyWriter::text(std::string_view text) {
    appendTextHead(output_.end(), text.size(), isResp3_);
    output_.end().append(text).append("\r\n");
}

void ReplyWriter::error(std::string_view text, std::string_view code) {
    std::string& out = output_.end();
    out.append("-").append(code).append(" ");
    std::size_t const begin = out.size();
    out += text;
    std::replace_if(
        out.begin() + static_cast<std::ptrdiff_t>(begin), out.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
    out += "\r\n";
}

void ReplyWriter::bulk(Text const& text, std::size_t from, std::size_t size) {
    if (!text.isLong())
        return bulk(text.view().substr(from, size));
    appendNumber(output_.end(), '$', static_cast<std::int64_t>(size));
    output_.append(text.longText(), from, size);
    output_.end() += "\r\n";
}

void ReplyWriter::map(std::size_t entries) {
    if (isResp3_)
        appendNumber(output_.end(), '%', static_cast<std::int64_t>(entries));
    else
        array(2 * entries);
}

} // namespace KelKv
