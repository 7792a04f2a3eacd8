#pragma once

#include <mox/String.h>

#include <iosfwd>
#include <string_view>

namespace Kel {

/// The text, with U+FFFD in place of each byte that is not part of valid UTF-8.
Mox::String validUtf8(std::string_view text);

/// The text as a JSON string, in its quotes.
Mox::String jsonString(std::string_view text);

/// Writes and flushes. Throws std::ios_base::failure when the sink does not take everything.
void writeWhole(std::ostream& sink, std::string_view text);

} // namespace Kel
