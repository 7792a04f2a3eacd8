#include <mox/detail/StrepCursor.h>

#include <algorithm>

namespace Mox {

std::string_view StrepCursor::rest() {
    constexpr std::string_view space = " \t\r\n\f";
    position_ = std::find_if(position_, end_, [&](char c) { return space.find(c) == space.npos; });
    if (position_ == end_)
        throw PrematureEnd();
    return {position_, end_};
}

/// A text that ends within the token is no other token: it may have been cut.
bool StrepCursor::accept(std::string_view token) {
    std::string_view const text = rest();
    if (text.starts_with(token)) {
        skip(static_cast<std::ptrdiff_t>(token.size()));
        return true;
    }
    if (token.starts_with(text))
        throw PrematureEnd();
    return false;
}

void StrepCursor::expect(std::string_view token) {
    if (!accept(token))
        throw RangeException("expected " + std::string(token));
}

} // namespace Mox
