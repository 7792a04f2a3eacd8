#pragma once

#include <string>
#include <string_view>

namespace Mox {

/// An 8-bit string: any bytes, NUL included. Converts from `char const*` and std::string_view and, as every
/// std::string does, to std::string_view.
class String : public std::string {
  public:
    using IteratorConst = std::string::const_iterator;

    String() = default;
    String(char const* text) : std::string(text) {}
    String(std::string_view text) : std::string(text) {}
    String(std::string text) : std::string(std::move(text)) {}
};

using String8 = String;

} // namespace Mox
