#pragma once

#include <kelkv/Commands.h>

#include <string>
#include <utility>
#include <vector>

namespace KelKv {

/// Who gives commands, without a connection: their steps are run one by one.
///
/// Lifetime: the engine outlives it.
struct CommandClient {
    explicit CommandClient(Engine& of, bool isOperator = false) : engine(of) {
        session.isOperator = isOperator;
        session.id = ++engine.lastSession;
        engine.sessions.push_back(session);
    }

    /// Runs the first step. Requires: the one before is done.
    void begin(std::vector<Word> const& of) {
        words = WordList();
        for (Word const& word : of)
            words.push_back(word);
        inStep([&](CommandContext& context) {
            answer(context, words);
            rest = std::move(context.rest);
        });
    }
    bool isDone() const { return !rest; }
    void step() {
        inStep([&](CommandContext& context) {
            if (!rest(context))
                rest = nullptr;
        });
    }
    /// The replies so far.
    std::string take() {
        std::string replies;
        while (output.unsent() > 0) {
            replies += output.next();
            output.sent(output.next().size());
        }
        return replies;
    }

    Engine& engine;
    Session session;
    Output output;
    WordList words;
    CommandContext::Step rest;
    std::size_t steps = 0;
    CommandContext::Next next = CommandContext::Next::nothing; // of the last step
    std::optional<std::string> pattern;

  private:
    template <class F> void inStep(F run) {
        CommandContext context{engine, session, ReplyWriter(output, session.isResp3)};
        run(context);
        next = context.next;
        pattern = std::move(context.pattern);
        ++steps;
    }
};

} // namespace KelKv
