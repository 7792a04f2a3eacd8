#pragma once

#include "Scavenger.h"

#include <boost/intrusive_ptr.hpp>

#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace KelKv {

/// A text of many bytes, in blocks, so that no step of receiving, sending or freeing it takes longer than a
/// block does. Bytes are only ever appended: who sends it remembers how many there were, and shares it with
/// those that append. Copies, and texts that were appended as a whole, share blocks.
///
/// Lifetime: counted; the last one to let go leaves the blocks to the scavenger, which outlives it.
class LongText {
  public:
    static constexpr std::size_t blockSize = 1 << 18;

    explicit LongText(Mox::Ptr<Scavenger> scavenger) : scavenger_(std::move(scavenger)) {}
    LongText(LongText const&) = delete;
    LongText& operator=(LongText const&) = delete;

    std::size_t size() const { return blocks_.empty() ? 0 : blocks_.back().end(); }
    void append(std::string_view bytes);
    /// In the time that it takes to go through the other's blocks.
    void append(LongText const& text);
    /// From there to the end of its block. Requires: less than `size()`.
    std::string_view from(std::size_t at) const;

  private:
    friend void intrusive_ptr_add_ref(LongText* text) { ++text->references_; }
    friend void intrusive_ptr_release(LongText* text);

    struct Block {
        std::size_t begin;
        std::shared_ptr<std::string> bytes; // those of several texts are not changed

        std::size_t end() const { return begin + bytes->size(); }
    };

    std::string& blockWithRoom();

    Mox::Ptr<Scavenger> const scavenger_;
    std::vector<Block> blocks_;
    std::size_t references_ = 0;
};
using LongTextPtr = boost::intrusive_ptr<LongText>;

/// A word of a request: its bytes, or, of one that is too long to lie in one piece, the text.
struct Word {
    Word() = default;
    template <std::convertible_to<std::string_view> T> Word(T const& bytes) : view(bytes) {}
    Word(LongTextPtr longText) : text(std::move(longText)) {}

    std::size_t size() const { return text ? text->size() : view.size(); }
    /// Requires: not a long one; which words may be long a command tells beforehand.
    operator std::string_view() const { return view; }

    std::string_view view;
    LongTextPtr text; // null: not a long one
};

/// A value's bytes: one string while they are few, then a long text.
class Text {
  public:
    /// The longest string.
    static constexpr std::size_t shortMax = LongText::blockSize;
    /// The most bytes of a text, for those who append to it to keep to.
    static constexpr std::size_t sizeMax = std::size_t{512} << 20;

    Text() = default;
    explicit Text(std::string&& bytes) : bytes_(std::move(bytes)) {}
    /// A long word becomes the text as it is.
    Text(Word const& word, Mox::Ptr<Scavenger> const& scavenger);

    std::size_t size() const;
    bool isLong() const { return std::holds_alternative<LongTextPtr>(bytes_); }
    /// Requires: not long.
    std::string_view view() const { return std::get<std::string>(bytes_); }
    /// Requires: long.
    LongTextPtr const& longText() const { return std::get<LongTextPtr>(bytes_); }

    void append(std::string_view bytes, Mox::Ptr<Scavenger> const& scavenger);
    void append(Word const& word, Mox::Ptr<Scavenger> const& scavenger);
    /// One that is changed without the other. (A copy's long text is the same one.)
    Text clone(Mox::Ptr<Scavenger> const& scavenger) const;

  private:
    void becomeLong(Mox::Ptr<Scavenger> const& scavenger);

    std::variant<std::string, LongTextPtr> bytes_;
};

} // namespace KelKv
