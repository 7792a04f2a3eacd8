#include "Commands.h"

#include "Connection.h"
#include "Daemon.h"

#include <unistd.h>

#include <sstream>

namespace KelKv {

namespace {

constexpr std::size_t any = Limits::arguments;

void ping(Connection& connection, Arguments words) {
    if (words.size() == 1)
        connection.reply().status("PONG");
    else
        connection.reply().bulk(words[1]);
}

void echo(Connection& connection, Arguments words) { connection.reply().bulk(words[1]); }

void quit(Connection& connection, Arguments) {
    connection.reply().status("OK");
    connection.closeWhenSent();
}

// INFO

void infoServer(Daemon& daemon, std::ostream& out) {
    out << "process_id:" << getpid() << "\r\ntcp_port:" << daemon.clients().number()
        << "\r\noperator_port:" << daemon.operators().number()
        << "\r\nuptime_in_seconds:" << static_cast<Mox::U64>(daemon.upTime()) << "\r\n";
}

void infoClients(Daemon& daemon, std::ostream& out) {
    out << "connected_clients:" << daemon.clients().connections()
        << "\r\nconnected_operators:" << daemon.operators().connections() << "\r\n";
}

void infoKeyspace(Daemon& daemon, std::ostream& out) { out << "keys:" << daemon.store().size() << "\r\n"; }

void infoScheduler(Daemon& daemon, std::ostream& out) { out << daemon.statistics(); }

struct Section {
    char const* name;
    std::string_view capitals;
    void (*print)(Daemon& daemon, std::ostream& out);
};

constexpr Section sections[] = {
    {"Server", "SERVER", infoServer},
    {"Clients", "CLIENTS", infoClients},
    {"Keyspace", "KEYSPACE", infoKeyspace},
    {"Scheduler", "SCHEDULER", infoScheduler},
};

void info(Connection& connection, Arguments words) {
    std::ostringstream out;
    for (Section const& section : sections)
        if (words.size() == 1 || isWord(words[1], section.capitals)) {
            out << (out.tellp() > 0 ? "\r\n" : "") << "# " << section.name << "\r\n";
            section.print(connection.daemon(), out);
        }
    connection.reply().bulk(out.view());
}

// What client programs ask before they begin. There is nothing to configure and no catalogue of commands.

void config(Connection& connection, Arguments words) {
    if (words.size() < 3 || !isWord(words[1], "GET"))
        return connection.reply().error("only CONFIG GET is known");
    bool const isSave = isWord(words[2], "SAVE");
    if (!isSave && !isWord(words[2], "APPENDONLY"))
        return connection.reply().array(0);
    connection.reply().array(2);
    connection.reply().bulk(words[2]);
    connection.reply().bulk(isSave ? "" : "no");
}

void client(Connection& connection, Arguments words) {
    if (isWord(words[1], "SETINFO") || isWord(words[1], "SETNAME"))
        connection.reply().status("OK");
    else if (isWord(words[1], "GETNAME"))
        connection.reply().null();
    else
        connection.reply().error("unknown subcommand of CLIENT");
}

void command(Connection& connection, Arguments words) {
    if (words.size() > 1 && isWord(words[1], "COUNT"))
        connection.reply().integer(static_cast<Mox::S64>(keyCommands().size() + serverCommands().size() +
                                                         operatorCommands().size()));
    else
        connection.reply().array(0);
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
