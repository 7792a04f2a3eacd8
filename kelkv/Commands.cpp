#include "Commands.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <array>
#include <string>

namespace KelKv {

namespace {

using Table = boost::unordered_flat_map<std::string_view, Command const*>;

constexpr std::size_t shownName = 64; // bytes of an unknown command's name in the reply

char capital(char c) { return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

Table makeTable() {
    Table table;
    for (auto const commands : {keyCommands(), operatorCommands(), serverCommands()})
        for (Command const& command : commands)
            table.emplace(command.name, &command);
    return table;
}

Command const* find(std::string_view name) {
    static Table const table = makeTable();
    std::array<char, 16> capitals;
    if (name.size() > capitals.size())
        return nullptr;
    std::ranges::transform(name, capitals.begin(), capital);
    auto const at = table.find(std::string_view(capitals.data(), name.size()));
    return at == table.end() ? nullptr : at->second;
}

} // namespace

bool isWord(std::string_view text, std::string_view word) {
    return std::ranges::equal(text, word, {}, capital, capital);
}

void answer(CommandContext& context, Arguments words) {
    Command const* const command = find(words[0]);
    if (!command)
        context.reply.error("unknown command '" + std::string(words[0].substr(0, shownName)) + "'");
    else if (words.size() < command->wordsMin || words.size() > command->wordsMax)
        context.reply.error("wrong number of arguments for '" + std::string(command->name) + "'");
    else
        command->run(context, words);
}

bool isAnsweredAtOnce(Arguments words) {
    if (words.empty())
        return true;
    Command const* const command = find(words[0]);
    return !command || command->atOnce;
}

} // namespace KelKv
