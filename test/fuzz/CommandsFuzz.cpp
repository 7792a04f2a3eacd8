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

/// A request's words, which outlive the parser's.
std::vector<Word> wordsOf(Arguments arguments, std::deque<std::string>& texts, Engine& engine) {
    std::vector<Word> words;
    for (Word const& word : arguments)
        if (word.view == longWord) {
            LongTextPtr const text(new LongText(engine.scavenger));
            text->append(std::string(LongText::blockSize + 9, 'x'));
            words.emplace_back(text);
        } else
            words.emplace_back(texts.emplace_back(word.view));
    return words;
}

} // namespace

/// Requests, of two clients and an operator in turn, each step of which is followed by one of the others.
extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Engine engine(loop);
    std::deque<std::string> texts;
    std::array<Client, 3> clients{Client(engine), Client(engine), Client(engine, true)};
    RequestParser parser(engine.scavenger);
    std::string_view input(data, size);
    for (std::size_t i = 0; !input.empty() && parser.state() != RequestParser::State::malformed;) {
        input.remove_prefix(parser.take(input));
        if (parser.state() != RequestParser::State::complete)
            continue;
        if (!parser.arguments().empty())
            clients[i++ % clients.size()].waiting.push_back(wordsOf(parser.arguments(), texts, engine));
        parser.reset();
    }
    auto const isDone = [](Client const& client) { return client.isDone() && client.waiting.empty(); };
    while (!std::ranges::all_of(clients, isDone))
        for (Client& client : clients)
            client.turn();
    return 0;
}
