#include <kelkv/Number.h>
#include <test/kelkv/CommandClient.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <string_view>

namespace {

using namespace KelKv;

/// Takes one reply from the beginning of the text. A command may change the protocol: RESP3's forms may be
/// there, or have to be.
void takeReply(std::string_view& text, bool mayBeResp3, bool isResp3) {
    std::size_t const end = text.find("\r\n");
    MOX_ASSERT(end != std::string_view::npos && end > 0);
    char const type = text[0];
    std::string_view const line = text.substr(1, end - 1);
    MOX_ASSERT(line.find_first_of("\r\n") == std::string_view::npos);
    text.remove_prefix(end + 2);
    std::int64_t number = 0;
    if (type == '-')
        MOX_ASSERT(line.starts_with("ERR ") || line.starts_with("NOPROTO "));
    else if (type == '_')
        MOX_ASSERT(mayBeResp3 && line.empty());
    else if (type != '+')
        MOX_ASSERT(readNumber(line, number));
    MOX_ASSERT(mayBeResp3 || std::string_view("=%~").find(type) == std::string_view::npos);
    MOX_ASSERT(!isResp3 || type != '$' || number != -1);
    if ((type == '$' && number != -1) || type == '=') {
        auto const size = static_cast<std::size_t>(number);
        MOX_ASSERT(text.size() >= size + 2 && text.substr(size, 2) == "\r\n");
        text.remove_prefix(size + 2);
    } else if (type == '*' || type == '%' || type == '~') {
        MOX_ASSERT(number >= 0);
        for (number *= type == '%' ? 2 : 1; number > 0; --number)
            takeReply(text, mayBeResp3, isResp3);
    } else
        MOX_ASSERT(std::string_view("+-_:$").find(type) != std::string_view::npos);
}

/// A client whose next request waits for the one before, as a connection's does.
struct Client : CommandClient {
    using CommandClient::CommandClient;

    /// A step of the request under way, or the first one of the next. Once it is done its reply is whole; a
    /// walk's comes from elsewhere.
    void turn() {
        if (!isDone())
            step();
        else if (!waiting.empty()) {
            wasResp3 = session.isResp3;
            begin(std::move(waiting.front()));
            waiting.pop_front();
        }
        replies += take();
        if (!isDone() || replies.empty())
            return;
        MOX_ASSERT(context->next != CommandContext::Next::walk);
        std::string_view left = replies;
        takeReply(left, wasResp3 || session.isResp3, wasResp3 && session.isResp3);
        MOX_ASSERT(left.empty());
        replies.clear();
    }

    std::deque<Words> waiting;
    std::string replies;
    bool wasResp3 = false;
};

} // namespace

/// Requests, of two clients and an operator in turn, each step of which is followed by one of the others.
extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Engine engine(loop);
    std::vector<Words> const requests = requestsIn(RequestParser(engine.scavenger), {data, size});
    MOX_ASSERT(requests == requestsIn(RequestParser(engine.scavenger), {data, size}, 1));
    std::array<Client, 3> clients{Client(engine), Client(engine), Client(engine, true)};
    std::size_t next = 0;
    for (auto const& request : requests)
        if (!request.empty())
            clients[next++ % clients.size()].waiting.push_back(request);
    auto const isDone = [](Client const& client) { return client.isDone() && client.waiting.empty(); };
    while (!std::ranges::all_of(clients, isDone))
        for (Client& client : clients)
            client.turn();
    return 0;
}
