#include "Commands.h"

#include <registry/SchedulerTree.h>

#include <algorithm>

// The operator's commands: what the scheduler measured, and its live tree.

namespace KelKv {

namespace {

constexpr std::size_t any = Limits::arguments;

Kel::SchedulerTree tree(CommandContext& context) { return Kel::SchedulerTree(context.engine.root); }

void bulks(CommandContext& context, std::vector<std::string> const& texts) {
    context.reply.array(texts.size());
    for (std::string const& text : texts)
        context.reply.bulk(text);
}

// Each takes the words behind its own name.

void history(CommandContext& context, Arguments) { context.reply.bulk(context.engine.history()); }

void trace(CommandContext& context, Arguments) { context.reply.bulk(context.engine.trace()); }

void reset(CommandContext& context, Arguments) {
    context.engine.root->resetStats();
    context.reply.status("OK");
}

void list(CommandContext& context, Arguments words) {
    bulks(context, tree(context).list(words.empty() ? "" : words[0]));
}

void get(CommandContext& context, Arguments words) {
    auto const answer = tree(context).get(words[0]);
    if (auto const* const text = std::get_if<std::string>(&answer))
        context.reply.bulk(*text);
    else
        bulks(context, std::get<std::vector<std::string>>(answer));
}

void set(CommandContext& context, Arguments words) {
    tree(context).set(words[0], words[1]);
    context.reply.status("OK");
}

void call(CommandContext& context, Arguments words) {
    std::vector<Mox::String> const arguments(words.begin() + 2, words.end());
    std::string const result = tree(context).call(words[0], words[1], arguments);
    if (result.empty())
        context.reply.status("OK");
    else
        context.reply.bulk(result);
}

constexpr Command subcommands[] = {
    {"HISTORY", 0, 0, history}, {"TRACE", 0, 0, trace}, {"RESET", 0, 0, reset}, {"LS", 0, 1, list},
    {"GET", 1, 1, get},         {"SET", 2, 2, set},     {"CALL", 2, any, call},
};

void sched(CommandContext& context, Arguments words) {
    if (!context.isOperator)
        return context.reply.error("SCHED is for the operator's port");
    auto const at =
        std::ranges::find_if(subcommands, [&](Command const& c) { return isWord(words[1], c.name); });
    if (at == std::end(subcommands))
        return context.reply.error("unknown subcommand of SCHED");
    Arguments const behind = words.subspan(2);
    if (behind.size() < at->wordsMin || behind.size() > at->wordsMax)
        return context.reply.error("wrong number of arguments for 'SCHED " + std::string(at->name) + "'");
    try {
        at->run(context, behind);
    } catch (Mox::Exception const& e) {
        context.reply.error(e.what());
    }
}

constexpr Command commands[] = {{"SCHED", 2, any, sched, true}};

} // namespace

std::span<Command const> operatorCommands() { return commands; }

} // namespace KelKv
