#include "Commands.h"

#include "Connection.h"
#include "Daemon.h"
#include <registry/SchedulerTree.h>

#include <algorithm>

// The operator's commands: what the scheduler measured, and its live tree.

namespace KelKv {

namespace {

constexpr std::size_t any = Limits::arguments;

Kel::SchedulerTree tree(Connection& connection) { return Kel::SchedulerTree(connection.daemon().root()); }

void bulks(Connection& connection, std::vector<std::string> const& texts) {
    connection.reply().array(texts.size());
    for (std::string const& text : texts)
        connection.reply().bulk(text);
}

// Each takes the words behind its own name.

void history(Connection& connection, Arguments) { connection.reply().bulk(connection.daemon().history()); }

void trace(Connection& connection, Arguments) { connection.reply().bulk(connection.daemon().trace()); }

void reset(Connection& connection, Arguments) {
    connection.daemon().root()->resetStats();
    connection.reply().status("OK");
}

void list(Connection& connection, Arguments words) {
    bulks(connection, tree(connection).list(words.empty() ? "" : words[0]));
}

void get(Connection& connection, Arguments words) {
    auto const answer = tree(connection).get(words[0]);
    if (auto const* const text = std::get_if<std::string>(&answer))
        connection.reply().bulk(*text);
    else
        bulks(connection, std::get<std::vector<std::string>>(answer));
}

void set(Connection& connection, Arguments words) {
    tree(connection).set(words[0], words[1]);
    connection.reply().status("OK");
}

void call(Connection& connection, Arguments words) {
    std::vector<Mox::String> const arguments(words.begin() + 2, words.end());
    std::string const result = tree(connection).call(words[0], words[1], arguments);
    if (result.empty())
        connection.reply().status("OK");
    else
        connection.reply().bulk(result);
}

constexpr Command subcommands[] = {
    {"HISTORY", 0, 0, history}, {"TRACE", 0, 0, trace}, {"RESET", 0, 0, reset}, {"LS", 0, 1, list},
    {"GET", 1, 1, get},         {"SET", 2, 2, set},     {"CALL", 2, any, call},
};

void sched(Connection& connection, Arguments words) {
    if (!connection.isOperator())
        return connection.reply().error("SCHED is for the operator's port");
    auto const at =
        std::ranges::find_if(subcommands, [&](Command const& c) { return isWord(words[1], c.name); });
    if (at == std::end(subcommands))
        return connection.reply().error("unknown subcommand of SCHED");
    Arguments const behind = words.subspan(2);
    if (behind.size() < at->wordsMin || behind.size() > at->wordsMax)
        return connection.reply().error("wrong number of arguments for 'SCHED " + std::string(at->name) +
                                        "'");
    try {
        at->run(connection, behind);
    } catch (Mox::Exception const& e) {
        connection.reply().error(e.what());
    }
}

constexpr Command commands[] = {{"SCHED", 2, any, sched, true}};

} // namespace

std::span<Command const> operatorCommands() { return commands; }

} // namespace KelKv
