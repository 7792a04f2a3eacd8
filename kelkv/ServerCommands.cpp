#include "Commands.h"
#include "GlobMatch.h"
#include "Lifetime.h"
#include "ResidentSize.h"
#include "SlicedReply.h"

#include <unistd.h>

#include <boost/chrono/duration.hpp>

#include <algorithm>
#include <cmath>
#include <sstream>

// What client programs ask of the daemon.

namespace KelKv {

namespace {

using Mox::S64;

constexpr std::size_t few = 64; // words

// INFO

void infoServer(Engine& engine, std::ostream& out) {
    Engine::Ports const ports = engine.ports();
    auto const uptime =
        boost::chrono::duration_cast<boost::chrono::seconds>(Mox::SteadyClock::now() - engine.started);
    out << "redis_version:" << compatibleVersion << "\r\nredis_mode:standalone\r\nserver_name:kelkv"
        << "\r\narch_bits:" << 8 * sizeof(void*) << "\r\nprocess_id:" << getpid()
        << "\r\ntcp_port:" << ports.clients.number << "\r\noperator_port:" << ports.operators.number
        << "\r\nhttp_port:" << ports.http.number << "\r\nuptime_in_seconds:" << uptime.count()
        << "\r\nuptime_in_days:" << uptime.count() / 86400 << "\r\n";
}

void infoClients(Engine& engine, std::ostream& out) {
    Engine::Ports const ports = engine.ports();
    out << "connected_clients:" << ports.clients.connections
        << "\r\nmaxclients:" << ports.clients.connectionsMax << "\r\nblocked_clients:0"
        << "\r\nconnected_operators:" << ports.operators.connections
        << "\r\nmaxoperators:" << ports.operators.connectionsMax
        << "\r\nconnected_http:" << ports.http.connections << "\r\nmaxhttp:" << ports.http.connectionsMax
        << "\r\n";
}

void infoMemory(Engine& engine, std::ostream& out) {
    std::size_t const size = residentSize();
    out << "used_memory:" << size << "\r\nused_memory_rss:" << size << "\r\nmaxmemory:0"
        << "\r\nmaxmemory_policy:noeviction\r\n";
    for (Engine::Limit const& limit : engine.limits())
        out << limit.name << "_bytes:" << limit.of.used() << "\r\n"
            << limit.name << "_bytes_max:" << limit.of.most() << "\r\n"
            << limit.name << "_bytes_refused:" << limit.of.refused() << "\r\n";
}

void infoPersistence(Engine&, std::ostream& out) { out << "loading:0\r\naof_enabled:0\r\n"; }

void infoStats(Engine& engine, std::ostream& out) {
    Engine::Ports const ports = engine.ports();
    out << "total_connections_received:" << ports.clients.accepted
        << "\r\ntotal_commands_processed:" << engine.commandsAnswered
        << "\r\nrejected_connections:" << ports.clients.refused
        << "\r\nexpired_keys:" << engine.store.expired()
        << "\r\nevicted_keys:0\r\ntotal_operators_received:" << ports.operators.accepted
        << "\r\nrejected_operators:" << ports.operators.refused
        << "\r\ntotal_http_received:" << ports.http.accepted << "\r\nrejected_http:" << ports.http.refused
        << "\r\n";
}

void infoReplication(Engine&, std::ostream& out) { out << "role:master\r\nconnected_slaves:0\r\n"; }

void infoKeyspace(Engine& engine, std::ostream& out) {
    if (engine.store.size() > 0)
        out << "db0:keys=" << engine.store.size() << ",expires=" << engine.store.expiring()
            << ",avg_ttl=0\r\n";
}

GatheredBulk::Parts scheduler(Engine& engine) { return partsOf(engine, engine.statistics()); }

/// A section that is one part.
template <void (*print)(Engine& engine, std::ostream& out)> GatheredBulk::Parts whole(Engine& engine) {
    return [&engine](std::string& text) {
        std::ostringstream out;
        print(engine, out);
        text += out.view();
        return false;
    };
}

struct Section {
    std::string_view name;
    GatheredBulk::Parts (*parts)(Engine& engine);
    bool isDefault = true; // clients ask for them when they connect: those are short
};

constexpr Section sections[] = {
    {"Server", whole<infoServer>},     {"Clients", whole<infoClients>},
    {"Memory", whole<infoMemory>},     {"Persistence", whole<infoPersistence>},
    {"Stats", whole<infoStats>},       {"Replication", whole<infoReplication>},
    {"Keyspace", whole<infoKeyspace>}, {"Scheduler", scheduler, false},
};

/// Whether a section is asked for.
bool isMeant(Section const& section, Arguments words) {
    if (words.empty())
        return section.isDefault;
    return std::ranges::any_of(words, [&](std::string_view word) {
        bool const isEach = isWord(word, "ALL") || isWord(word, "EVERYTHING");
        return isEach || isWord(word, section.name) || (section.isDefault && isWord(word, "DEFAULT"));
    });
}

/// The sections, part by part.
class Information {
  public:
    Information(Engine& engine, Arguments words) : engine_(&engine) {
        for (Section const& section : sections)
            if (isMeant(section, words))
                sections_.push_back(&section);
    }

    bool operator()(std::string& text) {
        if (next_ == sections_.size())
            return false;
        if (!parts_) {
            text.append(next_ > 0 ? "\r\n# " : "# ").append(sections_[next_]->name).append("\r\n");
            parts_ = sections_[next_]->parts(*engine_);
        }
        if (!parts_(text)) {
            parts_ = nullptr;
            ++next_;
        }
        return next_ < sections_.size();
    }

  private:
    Engine* engine_;
    std::vector<Section const*> sections_;
    std::size_t next_ = 0;
    GatheredBulk::Parts parts_; // of that section
};

void info(CommandContext& context, Arguments words) {
    GatheredBulk::reply(context, Information(context.engine, words.subspan(1)));
}

// CONFIG: there is nothing to configure but by options.

struct Setting {
    std::string_view name;
    std::string (*value)(Engine& engine);
};

constexpr Setting settings[] = {
    {"appendonly", [](Engine&) -> std::string { return "no"; }},
    {"databases", [](Engine&) -> std::string { return "1"; }},
    {"maxclients", [](Engine& engine) { return std::to_string(engine.ports().clients.connectionsMax); }},
    {"maxmemory", [](Engine&) -> std::string { return "0"; }},
    {"maxmemory-policy", [](Engine&) -> std::string { return "noeviction"; }},
    {"port", [](Engine& engine) { return std::to_string(engine.ports().clients.number); }},
    {"proto-max-bulk-len", [](Engine&) { return std::to_string(Limits::word); }},
    {"save", [](Engine&) { return std::string(); }},
    {"timeout", [](Engine&) -> std::string { return "0"; }},
};

/// Patterns are short: matching a long one would take long.
bool isMatch(std::string_view pattern, std::string_view name) {
    constexpr std::size_t patternMax = 256;
    return pattern.size() <= patternMax && *GlobMatch(lowerCase(pattern), name).step(std::string_view::npos);
}

void configGet(CommandContext& context, Arguments patterns) {
    std::vector<Setting const*> found;
    for (Setting const& setting : settings)
        if (std::ranges::any_of(patterns,
                                [&](std::string_view pattern) { return isMatch(pattern, setting.name); }))
            found.push_back(&setting);
    context.reply.map(found.size());
    for (Setting const* setting : found) {
        context.reply.bulk(setting->name);
        context.reply.bulk(setting->value(context.engine));
    }
}

void configSet(CommandContext& context, Arguments) {
    context.reply.error("CONFIG SET is not supported: settings are options that the daemon starts with");
}

constexpr Command configSubcommands[] = {{"GET", 1, few, configGet}, {"SET", 2, few, configSet}};

void config(CommandContext& context, Arguments words) { answerSubcommand(context, words, configSubcommands); }

// COMMAND

std::size_t commandCount() {
    std::size_t count = 0;
    for (auto const table : commandTables())
        count += table.size();
    return count;
}

void replyCommand(ReplyWriter& reply, Command const& command) {
    auto const words = static_cast<S64>(command.wordsMin);
    reply.array(6);
    reply.bulk(lowerCase(command.name));
    reply.integer(command.wordsMin == command.wordsMax ? words : -words);
    reply.set(0); // of flags
    reply.integer(command.keys.first);
    reply.integer(command.keys.last);
    reply.integer(command.keys.step);
}

/// Calls `f` with each command.
template <class F> void eachCommand(F f) {
    for (auto const table : commandTables())
        for (Command const& command : table)
            f(command);
}

void replyAllCommands(CommandContext& context) {
    context.reply.array(commandCount());
    eachCommand([&](Command const& command) { replyCommand(context.reply, command); });
}

void commandInfo(CommandContext& context, Arguments names) {
    if (names.empty())
        return replyAllCommands(context);
    context.reply.array(names.size());
    for (std::string_view const name : names)
        if (Command const* const command = findCommand(name))
            replyCommand(context.reply, *command);
        else
            context.reply.null();
}

void commandList(CommandContext& context, Arguments) {
    context.reply.array(commandCount());
    eachCommand([&](Command const& command) { context.reply.bulk(lowerCase(command.name)); });
}

void commandNumber(CommandContext& context, Arguments) {
    context.reply.integer(static_cast<S64>(commandCount()));
}

/// Which commands there are; what they do is in the manual page.
void commandDocs(CommandContext& context, Arguments names) {
    std::vector<Command const*> found;
    eachCommand([&](Command const& command) {
        if (names.empty() ||
            std::ranges::any_of(names, [&](std::string_view name) { return isWord(name, command.name); }))
            found.push_back(&command);
    });
    context.reply.map(found.size());
    for (Command const* command : found) {
        context.reply.bulk(lowerCase(command->name));
        context.reply.map(1);
        context.reply.bulk("summary");
        context.reply.bulk("see man 1 kelkv");
    }
}

constexpr Command commandSubcommands[] = {
    {"COUNT", 0, 0, commandNumber},
    {"DOCS", 0, few, commandDocs},
    {"INFO", 0, few, commandInfo},
    {"LIST", 0, 0, commandList},
};

void command(CommandContext& context, Arguments words) {
    if (words.size() == 1)
        replyAllCommands(context);
    else
        answerSubcommand(context, words, commandSubcommands);
}

// TIME

void time(CommandContext& context, Arguments) {
    auto const microseconds = static_cast<S64>(context.engine.calendarTime() * 1e6);
    context.reply.array(2);
    context.reply.bulk(std::to_string(microseconds / 1000000));
    context.reply.bulk(std::to_string(microseconds % 1000000));
}

constexpr Command commands[] = {
    {"INFO", 1, few, info},
    {"CONFIG", 2, few, config},
    {"COMMAND", 1, few, command},
    {"TIME", 1, 1, time},
};

} // namespace

std::span<Command const> serverCommands() { return commands; }

} // namespace KelKv
