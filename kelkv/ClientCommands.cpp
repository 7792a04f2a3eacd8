#include "Commands.h"
#include "Number.h"
#include "Steps.h"

#include <boost/chrono/duration.hpp>

#include <algorithm>
#include <memory>

// What client programs say and ask of their own connection, and who else is there.

namespace KelKv {

namespace {

using Mox::S64;

constexpr std::size_t few = 64;      // words
constexpr std::size_t nameMax = 256; // bytes

void ping(CommandContext& context, Arguments words) {
    if (words.size() == 1)
        context.reply.status("PONG");
    else
        context.reply.bulk(words[1]);
}

void echo(CommandContext& context, Arguments words) { context.reply.bulk(words[1]); }

void quit(CommandContext& context, Arguments) {
    context.reply.status("OK");
    context.next = CommandContext::Next::close;
}

void select(CommandContext& context, Arguments words) {
    S64 number = 0;
    if (!readNumber(words[1], number))
        context.reply.error("value is not an integer or out of range");
    else if (number != 0)
        context.reply.error("DB index is out of range: there is one, 0");
    else
        context.reply.status("OK");
}

void protocolIs(CommandContext& context, bool isResp3) {
    context.session.isResp3 = isResp3;
    context.reply.isResp3Is(isResp3);
}

void reset(CommandContext& context, Arguments) {
    context.session.name.clear();
    protocolIs(context, false);
    context.reply.status("RESET");
}

void auth(CommandContext& context, Arguments) {
    context.reply.error("AUTH is not supported: nobody has a password");
}

void notSupported(CommandContext& context, Arguments words) {
    context.reply.error("MULTI is not supported: no two commands are one step, " + lowerCase(words[0]) +
                        " has nothing to do");
}

// Names

/// As CLIENT LIST writes them: short, as it writes many in a step, and without blanks or anything else that
/// parts them. An error reply if it is none.
bool isName(CommandContext& context, std::string_view name) {
    if (name.size() > nameMax) {
        context.reply.error("a name has no more than " + std::to_string(nameMax) + " bytes");
        return false;
    }
    bool const is = std::ranges::all_of(name, [](char c) { return '!' <= c && c <= '~'; });
    if (!is)
        context.reply.error("Client names cannot contain spaces, newlines or special characters.");
    return is;
}

void setName(CommandContext& context, Arguments words) {
    if (!isName(context, words[0]))
        return;
    context.session.name = words[0].view;
    context.reply.status("OK");
}

void getName(CommandContext& context, Arguments) {
    if (context.session.name.empty())
        context.reply.null();
    else
        context.reply.bulk(context.session.name);
}

void setInfo(CommandContext& context, Arguments words) {
    bool const isLibrary = isWord(words[0], "LIB-NAME");
    if (!isLibrary && !isWord(words[0], "LIB-VER"))
        return context.reply.error("unknown attribute of CLIENT SETINFO");
    if (!isName(context, words[1]))
        return;
    (isLibrary ? context.session.library : context.session.libraryVersion) = words[1].view;
    context.reply.status("OK");
}

// HELLO

void replyHello(CommandContext& context) {
    ReplyWriter& reply = context.reply;
    auto const field = [&](std::string_view name, std::string_view text) {
        reply.bulk(name);
        reply.bulk(text);
    };
    reply.map(7);
    field("server", "kelkv");
    field("version", compatibleVersion);
    reply.bulk("proto");
    reply.integer(context.session.isResp3 ? 3 : 2);
    reply.bulk("id");
    reply.integer(static_cast<S64>(context.session.id));
    field("mode", "standalone");
    field("role", "master");
    reply.bulk("modules");
    reply.array(0);
}

/// All or nothing of it takes effect.
void hello(CommandContext& context, Arguments words) {
    bool isResp3 = context.session.isResp3;
    std::string_view name = context.session.name;
    if (words.size() > 1) {
        isResp3 = words[1].view == "3";
        if (!isResp3 && words[1].view != "2")
            return context.reply.error("unsupported protocol version", "NOPROTO");
    }
    for (Arguments left = words.subspan(std::min<std::size_t>(words.size(), 2)); !left.empty();
         left = left.subspan(2)) {
        if (isWord(left[0], "AUTH"))
            return auth(context, words);
        if (left.size() < 2 || !isWord(left[0], "SETNAME"))
            return context.reply.error("syntax error in HELLO");
        name = left[1];
        if (!isName(context, name))
            return;
    }
    context.session.name = std::string(name);
    protocolIs(context, isResp3);
    replyHello(context);
}

// CLIENT

std::string describe(Session const& session) {
    auto const seconds = [now = Mox::SteadyClock::latest()](Mox::SteadyClock::TimePoint since) {
        return std::to_string(boost::chrono::duration_cast<boost::chrono::seconds>(now - since).count());
    };
    return "id=" + std::to_string(session.id) + " addr=" + session.peer + " laddr=" + session.here +
           " name=" + session.name + " age=" + seconds(session.since) + " idle=" + seconds(session.lastUsed) +
           " flags=" + (session.isOperator ? "O" : "N") + " db=0 cmd=" + lowerCase(session.lastCommand) +
           " user=default lib-name=" + session.library + " lib-ver=" + session.libraryVersion +
           " resp=" + (session.isResp3 ? "3" : "2") + "\n";
}

/// The list of clients, so many a part. Others come and go between the parts: a session of its own that
/// nobody has, whose id is 0, stands in the list where it goes on.
class SessionList {
  public:
    explicit SessionList(Engine& engine) : engine_(engine), last_(engine.lastSession) {
        engine.sessions.push_front(*place_);
    }

    bool operator()(std::string& text) {
        auto at = std::next(engine_.sessions.iterator_to(*place_));
        place_->unlink();
        for (std::size_t i = 0; i < perPart && at != engine_.sessions.end() && at->id <= last_; ++i, ++at)
            if (at->id != 0)
                text += describe(*at);
        bool const isMore = at != engine_.sessions.end() && at->id <= last_;
        if (isMore)
            engine_.sessions.insert(at, *place_);
        return isMore;
    }

  private:
    static constexpr std::size_t perPart = 32;

    Engine& engine_;
    Mox::U64 last_; // those that come later are not in it
    std::shared_ptr<Session> place_ = std::make_shared<Session>();
};

/// Of the other types there are none.
void list(CommandContext& context, Arguments words) {
    constexpr std::string_view types[] = {"normal", "master", "replica", "slave", "pubsub"};
    if (words.size() == 1 || (words.size() == 2 && !isWord(words[0], "TYPE")))
        return context.reply.error("syntax error");
    std::string_view const type = words.empty() ? types[0] : words[1].view;
    if (isWord(type, types[0]))
        GatheredBulk::reply(context, SessionList(context.engine));
    else if (std::ranges::any_of(types, [&](std::string_view is) { return isWord(type, is); }))
        context.reply.text(std::string_view());
    else
        context.reply.error("Unknown client type '" + std::string(type.substr(0, nameMax)) + "'");
}

void id(CommandContext& context, Arguments) { context.reply.integer(static_cast<S64>(context.session.id)); }
void info(CommandContext& context, Arguments) { context.reply.text(describe(context.session)); }

/// What is so anyway.
void noEvict(CommandContext& context, Arguments words) {
    if (isWord(words[0], "ON") || isWord(words[0], "OFF"))
        context.reply.status("OK");
    else
        context.reply.error("syntax error");
}

constexpr Command subcommands[] = {
    {"ID", 0, 0, id},
    {"INFO", 0, 0, info},
    {"LIST", 0, 2, list},
    {"SETNAME", 1, 1, setName},
    {"GETNAME", 0, 0, getName},
    {"SETINFO", 2, 2, setInfo},
    {"NO-EVICT", 1, 1, noEvict},
    {"NO-TOUCH", 1, 1, noEvict},
};

void client(CommandContext& context, Arguments words) { answerSubcommand(context, words, subcommands); }

constexpr Command commands[] = {
    {"PING", 1, 2, ping},
    {"ECHO", 2, 2, echo},
    {"QUIT", 1, few, quit},
    {"RESET", 1, 1, reset},
    {"SELECT", 2, 2, select},
    {"HELLO", 1, 8, hello},
    {"AUTH", 2, 3, auth},
    {"CLIENT", 2, 8, client},
    {"MULTI", 1, 1, notSupported},
    {"EXEC", 1, 1, notSupported},
    {"DISCARD", 1, 1, notSupported},
    {"WATCH", 2, few, notSupported},
    {"UNWATCH", 1, 1, notSupported},
};

} // namespace

std::span<Command const> clientCommands() { return commands; }

} // namespace KelKv
