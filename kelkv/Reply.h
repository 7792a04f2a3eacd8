#pragma once

#include "Text.h"

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

namespace KelKv {

/// What is to be sent to a client: replies as they are made, and the long texts among them, which are shared
/// with the store.
class Output {
  public:
    /// The end, to append to.
    std::string& end() { return pieces_.back().bytes; }
    /// So many bytes of the text, which it has by now.
    void append(LongTextPtr text, std::size_t from, std::size_t size);
    void append(std::string&& bytes);

    /// Bytes that are still to be sent.
    std::size_t unsent() const;
    /// What to send next, up to a block of it; empty when there is nothing.
    std::string_view next() const;
    /// So many bytes of that are sent.
    void sent(std::size_t size);

  private:
    struct Piece {
        std::string bytes; // before the text
        LongTextPtr text = nullptr;
        std::size_t textFrom = 0;
        std::size_t textSize = 0;

        std::size_t size() const { return bytes.size() + textSize; }
    };

    std::deque<Piece> pieces_ = std::deque<Piece>(1);
    std::size_t sent_ = 0;   // bytes of the first piece
    std::size_t behind_ = 0; // bytes of all pieces but the last
};

/// A line that holds a number, and a text with its length before it.
void appendNumber(std::string& reply, char type, std::int64_t number);
void appendBulk(std::string& reply, std::string_view text);
/// What stands before so many bytes of a text for people, and before their end.
void appendTextHead(std::string& reply, std::size_t size, bool isResp3);

/// Writes replies in RESP2, or in RESP3 where that differs.
class ReplyWriter {
  public:
    /// The output outlives it.
    explicit ReplyWriter(Output& output, bool isResp3 = false) : output_(output), isResp3_(isResp3) {}

    void status(std::string_view text) { output_.end().append("+").append(text).append("\r\n"); }
    /// Control characters become blanks: part of the text may be a client's.
    void error(std::string_view text, std::string_view code = "ERR");
    void integer(std::int64_t number) { appendNumber(output_.end(), ':', number); }
    void bulk(std::string_view text) { appendBulk(output_.end(), text); }
    void bulk(Text const& text) { bulk(text, 0, text.size()); }
    /// A part of it.
    void bulk(Text const& text, std::size_t from, std::size_t size);
    /// One for people to read, which RESP3 tells apart.
    void text(std::string_view text);
    void null() { output_.end().append(isResp3_ ? "_\r\n" : "$-1\r\n"); }
    /// The elements follow as replies of their own.
    void array(std::size_t elements) {
        appendNumber(output_.end(), '*', static_cast<std::int64_t>(elements));
    }
    /// The same, in no order.
    void set(std::size_t elements) {
        appendNumber(output_.end(), isResp3_ ? '~' : '*', static_cast<std::int64_t>(elements));
    }
    /// Keys and values follow in turn, which RESP2 has as an array.
    void map(std::size_t entries);
    /// Replies, or parts of one, in the form that they are sent in.
    void written(std::string&& replies) { output_.append(std::move(replies)); }

    bool isResp3() const { return isResp3_; }
    void isResp3Is(bool isResp3) { isResp3_ = isResp3; }
    /// Bytes to be sent, of all replies.
    std::size_t unsent() const { return output_.unsent(); }

  private:
    Output& output_;
    bool isResp3_;
};

} // namespace KelKv
