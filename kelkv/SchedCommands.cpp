#include "SlicedReply.h"

#include <algorithm>

// The operator's commands: what the scheduler measured, and its live tree.

namespace KelKv {

namespace {

constexpr std::size_t callMax = 10; // words: no operation has more arguments

Kel::SchedulerTree tree(CommandContext& context) { return Kel::SchedulerTree(context.engine.root); }

// Each takes the words behind its own name.

void history(CommandContext& context, Arguments) {
    GatheredBulk::reply(context, partsOf(context.engine, context.engine.history()));
}

void trace(CommandContext& context, Arguments) {
    GatheredBulk::reply(context, partsOf(context.engine, context.engine.trace()));
}

void reset(CommandContext& context, Arguments) {
    context.engine.root->resetStats();
    context.reply.status("OK");
}

void list(CommandContext& context, Arguments words) {
    std::string_view const path = words.empty() ? std::string_view() : words[0].view;
    answerInSlices(context, tree(context).listing(path));
}

void get(CommandContext& context, Arguments words) {
    answerInSlices(context, tree(context).getting(words[0]));
}

void set(CommandContext& context, Arguments words) {
    answerInSlices(context, tree(context).setting(words[0], words[1]));
}

void call(CommandContext& context, Arguments words) {
    std::vector<Mox::String> arguments;
    for (Word const& word : words.subspan(2))
        arguments.emplace_back(word.view);
    answerInSlices(context, tree(context).calling(words[0], words[1], arguments));
}

constexpr Command subcommands[] = {
    {"HISTORY", 0, 0, history}, {"TRACE", 0, 0, trace}, {"RESET", 0, 0, reset},     {"LS", 0, 1, list},
    {"GET", 1, 1, get},         {"SET", 2, 2, set},     {"CALL", 2, callMax, call},
};

void sched(CommandContext& context, Arguments words) {
    if (!context.session.isOperator)
        return context.reply.error("SCHED is for the operator's port");
    auto const at =
        std::ranges::find_if(subcommands, [&](Command const& c) { return isWord(words[1], c.name); });
    if (at == std::end(subcommands))
        return context.reply.error("unknown subcommand of SCHED");
    Arguments const behind = words.subspan(2);
    if (behind.size() < at->wordsMin || behind.size() > at->wordsMax)
        return context.reply.error("wrong number of arguments for 'SCHED " + std::string(at->name) + "'");
    at->run(context, behind);
}

constexpr Command commands[] = {{"SCHED", 2, callMax + 2, sched}};

} // namespace

std::span<Command const> operatorCommands() { return commands; }

} // namespace KelKv
