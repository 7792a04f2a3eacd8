#include "Commands.h"

#include <unistd.h>

#include <sstream>

namespace KelKv {

namespace {

constexpr std::size_t any = Limits::arguments;

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

// INFO

void infoServer(Engine& engine, std::ostream& out) {
    Engine::Ports const ports = engine.ports();
    out << "process_id:" << getpid() << "\r\ntcp_port:" << ports.clients
        << "\r\noperator_port:" << ports.operators
        << "\r\nuptime_in_seconds:" << static_cast<Mox::U64>(Mox::now() - engine.started) << "\r\n";
}

void infoClients(Engine& engine, std::ostream& out) {
    Engine::Ports const ports = engine.ports();
    out << "connected_clients:" << ports.clientConnections
        << "\r\nconnected_operators:" << ports.operatorConnections << "\r\n";
}

void infoKeyspace(Engine& engine, std::ostream& out) { out << "keys:" << engine.store.size() << "\r\n"; }

void infoScheduler(Engine& engine, std::ostream& out) { out << engine.statistics(); }

struct Section {
    char const* name;
    void (*print)(Engine& engine, std::ostream& out);
};

constexpr Section sections[] = {
    {"Server", infoServer},
    {"Clients", infoClients},
    {"Keyspace", infoKeyspace},
    {"Scheduler", infoScheduler},
};

void info(CommandContext& context, Arguments words) {
    std::ostringstream out;
    for (Section const& section : sections)
        if (words.size() == 1 || isWord(words[1], section.name)) {
            out << (out.tellp() > 0 ? "\r\n" : "") << "# " << section.name << "\r\n";
            section.print(context.engine, out);
        }
    context.reply.bulk(out.view());
}

// What client programs ask before they begin. There is nothing to configure and no catalogue of commands.

void config(CommandContext& context, Arguments words) {
    if (words.size() < 3 || !isWord(words[1], "GET"))
        return context.reply.error("only CONFIG GET is known");
    bool const isSave = isWord(words[2], "SAVE");
    if (!isSave && !isWord(words[2], "APPENDONLY"))
        return context.reply.array(0);
    context.reply.array(2);
    context.reply.bulk(words[2]);
    context.reply.bulk(isSave ? "" : "no");
}

void client(CommandContext& context, Arguments words) {
    if (isWord(words[1], "SETINFO") || isWord(words[1], "SETNAME"))
        context.reply.status("OK");
    else if (isWord(words[1], "GETNAME"))
        context.reply.null();
    else
        context.reply.error("unknown subcommand of CLIENT");
}

void command(CommandContext& context, Arguments words) {
    if (words.size() > 1 && isWord(words[1], "COUNT"))
        context.reply.integer(static_cast<Mox::S64>(keyCommands().size() + serverCommands().size() +
                                                    operatorCommands().size()));
    else
        context.reply.array(0);
}

constexpr Command commands[] = {
    {"PING", 1, 2, ping, true},         {"ECHO", 2, 2, echo},
    {"QUIT", 1, any, quit, true},       {"INFO", 1, 2, info},
    {"CONFIG", 2, any, config},         {"CLIENT", 2, any, client, true},
    {"COMMAND", 1, any, command, true},
};

} // namespace

std::span<Command const> serverCommands() { return commands; }

} // namespace KelKv
