#pragma once

#include <string_view>

namespace KelKv {

/// Whether the whole text matches the pattern: `*` any run of bytes, `?` one byte, `[a-c]` one of a set,
/// `[^a]` one outside it, `\x` the byte x. A set without its bracket reaches to the pattern's end.
///
/// Keeps to the latest star only, so that no pattern costs more than its length times the text's.
bool globMatches(std::string_view pattern, std::string_view text);

} // namespace KelKv
