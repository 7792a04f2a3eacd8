#include <kelkv/Number.h>
#include <mox/Assert.h>
#include <test/kelkv/CommandClient.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <string_view>

namespace {

using namespace KelKv;

constexpr std::string_view longWord = "LONG"; // stands for one that is in several blocks

/// Takes one reply from the beginning of the text; RESP3's forms only if they may be there.
void takeReply(std::string_view& text, bool mayBeResp3) {
    std::size_t const end = text.find("\r\n");
    MOX_ASSERT(end != std::string_view::npos && end > 0);
    char const type = text[0];
    std::string_view const line = text.substr(1, end - 1);
    MOX_ASSERT(line.find_first_of("\r\n") == std::string_view::npos);
    text.remove_prefix(end + 2);
    std::int64_t number = 0;
    MOX_ASSERT(type == '+' || type == '-' || type == '_' || readNumber(line, number));
    switch (type) {
    case '+': return;
    case '-': MOX_ASSERT(line.starts_with("ERR ") || line.starts_with("NOPROTO ")); return;
    case ':': return;
    case '_': MOX_ASSERT(mayBeResp3 && line.empty()); return;
    case '$': {
        if (number == -1)
            return;
        auto const size = static_cast<std::size_t>(number);
        MOX_ASSERT(text.size() >= size + 2 && text.substr(size, 2) == "\r\n");
        text.remove_prefix(size + 2);
        return;
    }
    default:
        MOX_ASSERT(number >= 0 && (type == '*' || (type == '%' && mayBeResp3)));
        for (number *= type == '%' ? 2 : 1; number > 0; --number)
            takeReply(text, mayBeResp3);
    }
}

/// A client whose next request waits for the one before, as a connection's does.
struct Client : CommandClient {
    using CommandClient::CommandClient;

    /// A step of the request under way, or the first one of the next.
    void turn() {
        if (isDone() && !waiting.empty()) {
            current = std::move(waiting.front());
            waiting.pop_front();
            mayBeResp3 = session.isResp3;
            begin({current.begin(), current.end()});
        } else if (!isDone())
            step();
        replies += take();
        if (isDone())
            check();
    }
    /// A whole reply, once the request is done; a walk's comes from elsewhere.
    void check() {
        std::string_view left = replies;
        if (!left.empty() && next != CommandContext::Next::walk)
            takeReply(left, mayBeResp3 || session.isResp3);
        MOX_ASSERT(left.empty());
        replies.clear();
    }

    std::deque<std::vector<Word>> waiting;
    std::vector<Word> current;
    std::string replies;
    bool mayBeResp3 = false;
};

using Requests = std::deque<std::deque<std::string>>;

/// What a connection does: each piece is taken by one request after the other, up to a malformed one.
Requests requestsIn(std::string_view input, std::size_t pieceSize, Engine& engine) {
    Requests requests;
    RequestParser parser(engine.scavenger);
    while (!input.empty() && parser.state() != RequestParser::State::malformed) {
        std::string_view const piece = input.substr(0, pieceSize);
        std::size_t const size = parser.take(piece);
        MOX_ASSERT(size == piece.size() || parser.state() != RequestParser::State::incomplete);
        input.remove_prefix(size);
        if (parser.state() != RequestParser::State::complete)
            continue;
        auto& request = requests.emplace_back();
        for (Word const& word : parser.arguments())
            request.emplace_back(word.view);
        parser.reset();
    }
    return requests;
}

std::vector<Word> wordsOf(std::deque<std::string> const& request, Engine& engine) {
    std::vector<Word> words;
    for (std::string const& word : request)
        if (word == longWord) {
            LongTextPtr const text(new LongText(engine.scavenger));
            text->append(std::string(LongText::blockSize + 9, 'x'));
            words.emplace_back(text);
        } else
            words.emplace_back(word);
    return words;
}

} // namespace

/// Requests, of two clients and an operator in turn, each step of which is followed by one of the others.
extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Engine engine(loop);
    Requests const requests = requestsIn({data, size}, size, engine);
    MOX_ASSERT(requests == requestsIn({data, size}, 1, engine));
    std::array<Client, 3> clients{Client(engine), Client(engine), Client(engine, true)};
    std::size_t next = 0;
    for (auto const& request : requests)
        if (!request.empty())
            clients[next++ % clients.size()].waiting.push_back(wordsOf(request, engine));
    auto const isDone = [](Client const& client) { return client.isDone() && client.waiting.empty(); };
    while (!std::ranges::all_of(clients, isDone))
        for (Client& client : clients)
            client.turn();
    return 0;
}
