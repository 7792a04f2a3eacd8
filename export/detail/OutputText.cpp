#define MOX_SOURCE_NAME "Export"
#include <export/detail/OutputText.h>

#include <boost/locale/utf.hpp>
#include <nlohmann/json.hpp>

#include <ostream>

namespace Kel {

/// One replacement for each bad byte, and the decoder starts again behind the first: what it had read further
/// may be a character of its own, as the letter behind a byte that only begins a character.
Mox::String validUtf8(std::string_view text) {
    namespace utf = boost::locale::utf;
    Mox::String valid;
    valid.reserve(text.size());
    for (auto at = text.begin(); at != text.end();) {
        auto const begin = at;
        utf::code_point const point = utf::utf_traits<char>::decode(at, text.end());
        if (point == utf::illegal || point == utf::incomplete) {
            at = begin + 1;
            valid += "\uFFFD";
        } else {
            valid.append(begin, at);
        }
    }
    return valid;
}

Mox::String jsonString(std::string_view text) { return nlohmann::json(validUtf8(text)).dump(); }

/// Flushed here: what a buffer takes, a full disk may refuse, and nobody looks at a stream that goes.
void writeWhole(std::ostream& sink, std::string_view text) {
    if (!sink.write(text.data(), static_cast<std::streamsize>(text.size())).flush())
        throw std::ios_base::failure("the sink did not take the whole text");
}

} // namespace Kel
