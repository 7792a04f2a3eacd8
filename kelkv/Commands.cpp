#include "Commands.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <array>
#include <string>

namespace KelKv {

std::span<std::span<Command const> const> commandTables() {
    static std::array const tables{keyCommands(),      lifeCommands(),   valueCommands(),
                                   operatorCommands(), clientCommands(), serverCommands()};
    return tables;
}

namespace {

using Table = boost::unordered_flat_map<std::string_view, Command const*>;

constexpr std::size_t shownName = 64; // bytes of an unknown command's name in the reply

std::string shown(std::string_view name) { return std::string(name.substr(0, shownName)); }

char capital(char c) { return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

Table makeTable() {
    Table table;
    for (auto const commands : commandTables())
        for (Command const& command : commands)
            table.emplace(command.name, &command);
    return table;
}

bool hasLongWord(Arguments words) {
    return std::ranges::any_of(words, [](Word const& word) { return word.text != nullptr; });
}

} // namespace

Command const* findCommand(std::string_view name) {
    static Table const table = makeTable();
    std::array<char, 16> capitals;
    if (name.size() > capitals.size())
        return nullptr;
    std::ranges::transform(name, capitals.begin(), capital);
    auto const at = table.find(std::string_view(capitals.data(), name.size()));
    return at == table.end() ? nullptr : at->second;
}

bool isWord(std::string_view text, std::string_view word) {
    return std::ranges::equal(text, word, {}, capital, capital);
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower)
        c = 'A' <= c && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return lower;
}

void answer(CommandContext& context, Arguments words) {
    Command const* const command = findCommand(words[0]);
    ++context.engine.commandsAnswered;
    if (!command)
        return context.reply.error("unknown command '" + shown(words[0]) + "'");
    context.session.lastCommand = command->name;
    if (words.size() < command->wordsMin || words.size() > command->wordsMax)
        replyWrongCount(context, command->name);
    else if (hasLongWord(words.first(std::min(words.size(), command->longFrom))))
        context.reply.error("an argument is too long");
    else
        command->run(context, words);
}

void answerSubcommand(CommandContext& context, Arguments words, std::span<Command const> subcommands) {
    auto const at =
        std::ranges::find_if(subcommands, [&](Command const& c) { return isWord(words[1], c.name); });
    std::string const name = lowerCase(shown(words[0]));
    Arguments const behind = words.subspan(2);
    if (at == subcommands.end())
        context.reply.error("unknown subcommand '" + shown(words[1]) + "' of '" + name + "'");
    else if (behind.size() < at->wordsMin || behind.size() > at->wordsMax)
        replyWrongCount(context, name + "|" + std::string(at->name));
    else
        at->run(context, behind);
}

void replyWrongCount(CommandContext& context, std::string_view name) {
    context.reply.error("wrong number of arguments for '" + lowerCase(name) + "' command");
}

} // namespace KelKv
