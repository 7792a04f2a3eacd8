#pragma once

#include "Engine.h"
#include "Resp.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace KelKv {

/// What a command works on, where it replies, and what is to follow. A connection is not in it: what only one
/// can do, the command asks for.
struct CommandContext {
    enum class Next {
        nothing,
        walk, // over all keys: its reply is the command's
        close // once the replies so far are sent
    };

    Engine& engine;
    ReplyWriter reply;
    bool isOperator;

    Next next = Next::nothing;
    std::optional<std::string> pattern = std::nullopt; // of the walk
};

/// A command, its name in capitals, and how many words it takes, its own included.
struct Command {
    std::string_view name;
    std::size_t wordsMin;
    std::size_t wordsMax;
    void (*run)(CommandContext& context, Arguments words);
    /// The operator's connection does not wait for the scheduler.
    bool atOnce = false;
};

/// Commands on keys, those for the operator, and all others.
std::span<Command const> keyCommands();
std::span<Command const> operatorCommands();
std::span<Command const> serverCommands();

/// Runs the command of that name, whatever its case. Requires: at least one word.
void answer(CommandContext& context, Arguments words);

/// Whether the operator's connection answers it at once, whatever the scheduler does, unknown commands too.
bool isAnsweredAtOnce(Arguments words);

/// Whether they are the same but for the case.
bool isWord(std::string_view text, std::string_view word);

} // namespace KelKv
