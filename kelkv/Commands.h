#pragma once

#include "Resp.h"

#include <span>
#include <string_view>

namespace KelKv {

class Connection;

/// A command, its name in capitals, and how many words it takes, its own included.
struct Command {
    std::string_view name;
    std::size_t wordsMin;
    std::size_t wordsMax;
    void (*run)(Connection& connection, Arguments words);
    /// The operator's connection does not wait for the scheduler.
    bool atOnce = false;
};

/// Commands on keys, those for the operator, and all others.
std::span<Command const> keyCommands();
std::span<Command const> operatorCommands();
std::span<Command const> serverCommands();

/// Runs the command of that name, whatever its case; it replies at once, or makes the connection wait for a
/// walk. Requires: at least one word.
void answer(Connection& connection, Arguments words);

/// Whether the operator's connection answers it at once, whatever the scheduler does, unknown commands too.
bool isAnsweredAtOnce(Arguments words);

/// Whether they are the same but for the case. Requires: the second is in capitals.
bool isWord(std::string_view text, std::string_view capitals);

} // namespace KelKv
