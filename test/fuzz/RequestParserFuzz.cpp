#include <kelkv/RequestParser.h>
#include <mox/Assert.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using State = KelKv::RequestParser::State;

/// What a connection does: each piece is taken by one request after the other.
struct Reader {
    void read(std::string_view piece) {
        while (!piece.empty() && parser.state() != State::malformed) {
            std::size_t const size = parser.take(piece);
            MOX_ASSERT(size <= piece.size());
            MOX_ASSERT(size == piece.size() || parser.state() != State::incomplete);
            piece.remove_prefix(size);
            if (parser.state() == State::complete) {
                auto& request = requests.emplace_back();
                for (KelKv::Word const& word : parser.arguments())
                    request.emplace_back(word.view);
                parser.reset();
            }
        }
    }
    bool operator==(Reader const& other) const {
        return requests == other.requests && parser.state() == other.parser.state() &&
               parser.error() == other.parser.error() && parser.kept() == other.parser.kept();
    }

    KelKv::RequestParser parser;
    std::vector<std::vector<std::string>> requests;
};

} // namespace

/// Byte by byte, each request is whole at its last byte and not before.
extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size) {
    Reader whole, byBytes;
    whole.read({data, size});
    for (std::size_t at = 0; at < size; ++at) {
        std::size_t const before = byBytes.requests.size();
        byBytes.read({data + at, 1});
        MOX_ASSERT(byBytes.requests.size() <= before + 1);
    }
    MOX_ASSERT(byBytes == whole);
    return 0;
}
