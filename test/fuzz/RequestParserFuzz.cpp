#include <kelkv/Resp.h>
#include <mox/Assert.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using State = KelKv::RequestParser::State;

/// What a connection does: input grows, whole requests are taken from its beginning.
struct Reader {
    void read(std::string_view piece) {
        unread += piece;
        while ((state = parser.parse(unread)) == State::complete) {
            MOX_ASSERT(0 < parser.size() && parser.size() <= unread.size());
            std::string_view const request = std::string_view(unread).substr(0, parser.size());
            for (std::string_view const word : parser.arguments())
                MOX_ASSERT(request.begin() <= word.begin() && word.end() <= request.end());
            requests.emplace_back(parser.arguments().begin(), parser.arguments().end());
            unread.erase(0, parser.size());
            parser.reset();
        }
    }
    bool operator==(Reader const& other) const {
        return requests == other.requests && unread == other.unread && state == other.state &&
               (state != State::malformed || parser.error() == other.parser.error());
    }

    KelKv::RequestParser parser;
    std::string unread;
    std::vector<std::vector<std::string>> requests;
    State state = State::incomplete;
};

} // namespace

/// Byte by byte, each request is whole at its last byte and not before.
extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size) {
    Reader whole, byBytes;
    whole.read({data, size});
    for (std::size_t at = 0; at < size; ++at) {
        std::size_t const before = byBytes.requests.size();
        byBytes.read({data + at, 1});
        MOX_ASSERT(byBytes.requests.size() == before ||
                   (byBytes.requests.size() == before + 1 && byBytes.unread.empty()));
    }
    MOX_ASSERT(byBytes == whole);
    return 0;
}
