#pragma once

#include <mox/Strep.h>

#include <string_view>

namespace Mox {

/// Where a reader of a text form stands: reads token by token, white space before each skipped. For readers
/// of forms made of several tokens, which copy the position here and take it back once all is read:
///
///     StrepCursor cursor(position, end);
///     cursor.expect("(");
///     cursor.read(&number);
///     cursor.expect(")");
///     position = cursor.position();
///
/// Lifetime: the text outlives the cursor. Each function throws PrematureEnd where the text ends before it
/// can tell what stands there, and moves only over what it has read.
class MOX_EXPORT StrepCursor {
  public:
    StrepCursor(String::IteratorConst const& position, String::IteratorConst const& end)
        : position_(position), end_(end) {}

    /// Whether that token stood there; it is read if so.
    bool accept(std::string_view token);
    /// Throws a RangeException when another token stands there.
    void expect(std::string_view token);
    /// The value that stands there, by its type's own reader.
    template <class T> void read(T* value) { sequenceToValue(position_, end_, value); }

    /// What is left, from the next token on; not empty.
    std::string_view rest();
    /// Moves over so many characters. Requires: they are left.
    void skip(std::ptrdiff_t characters) { position_ += characters; }

    String::IteratorConst const& position() const { return position_; }

  private:
    String::IteratorConst position_;
    String::IteratorConst end_;
};

} // namespace Mox
