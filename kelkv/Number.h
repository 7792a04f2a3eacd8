#pragma once

#include <charconv>
#include <concepts>
#include <string_view>

namespace KelKv {

/// False when the whole text is no number, or one that the type does not hold; `number` is undefined then.
template <class T> bool readNumber(std::string_view text, T& number, std::same_as<int> auto... base) {
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base...);
    return error == std::errc() && end == text.data() + text.size();
}

} // namespace KelKv
