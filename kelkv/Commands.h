#pragma once

#include "Engine.h"
#include "Reply.h"
#include "RequestParser.h"
#include "Session.h"

#include <functional>
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
    /// One step of what is left of a command, in microseconds; true while there is more. The context is that
    /// of the step.
    using Step = std::function<bool(CommandContext& context)>;

    Engine& engine;
    Session& session;
    ReplyWriter reply;

    /// Bytes that were neither asked nor told, and cost as much.
    std::size_t copied = 0;
    Next next = Next::nothing;
    std::optional<std::string> pattern = std::nullopt; // of the walk
    /// What is left when the command returns: it is called again and again, between other clients' turns and
    /// as fast as the client takes the reply; the command's words stay good until it is done.
    Step rest = nullptr;
};

/// A command, its name in capitals, and how many words it takes, its own included.
struct Command {
    /// Which of its words are keys: the first, the last (from the end when negative), and every how many.
    struct Keys {
        int first = 0; // none
        int last = 0;
        int step = 0;
    };
    static constexpr Keys oneKey{1, 1, 1};
    static constexpr Keys twoKeys{1, 2, 1};
    static constexpr Keys allKeys{1, -1, 1};
    static constexpr Keys allPairs{1, -1, 2};

    std::string_view name;
    std::size_t wordsMin;
    std::size_t wordsMax;
    void (*run)(CommandContext& context, Arguments words);
    Keys keys = {};
    /// Words from this one on may be long texts: values.
    std::size_t longFrom = Limits::words;
};

/// What client programs may take the daemon for that decide by it what they can ask.
constexpr std::string_view compatibleVersion = "7.0.0";

/// Commands on keys, on their times to live, on their values as texts and numbers, those for the operator, on
/// the client's own connection, and all others.
std::span<Command const> keyCommands();
std::span<Command const> lifeCommands();
std::span<Command const> valueCommands();
std::span<Command const> operatorCommands();
std::span<Command const> clientCommands();
std::span<Command const> serverCommands();

/// All of them.
std::span<std::span<Command const> const> commandTables();
/// Null when there is none of that name, whatever its case.
Command const* findCommand(std::string_view name);

/// Runs the command of that name, whatever its case; see `CommandContext::rest`. Requires: at least one word.
void answer(CommandContext& context, Arguments words);
/// Runs the one of a command's subcommands that the second word names. Its words are those behind that one.
void answerSubcommand(CommandContext& context, Arguments words, std::span<Command const> subcommands);
void replyWrongCount(CommandContext& context, std::string_view name);

/// Whether they are the same but for the case.
bool isWord(std::string_view text, std::string_view word);
std::string lowerCase(std::string_view text);

} // namespace KelKv
