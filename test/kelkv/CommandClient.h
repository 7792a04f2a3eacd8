#pragma once

#include <kelkv/Commands.h>
#include <mox/Assert.h>

#include <string>
#include <utility>
#include <vector>

namespace KelKv {

using Words = std::vector<std::string>;

/// What a connection does: each piece is taken by one request after the other, up to a malformed one.
inline std::vector<Words> requestsIn(auto&& parser, std::string_view stream,
                                     std::size_t pieceSize = std::string_view::npos) {
    std::vector<Words> requests;
    while (!stream.empty() && parser.state() != RequestParser::State::malformed) {
        std::string_view const piece = stream.substr(0, pieceSize);
        std::size_t const size = parser.take(piece);
        MOX_ASSERT(size == piece.size() || parser.state() != RequestParser::State::incomplete);
        stream.remove_prefix(size);
        if (parser.state() != RequestParser::State::complete)
            continue;
        Words& request = requests.emplace_back();
        for (Word const& word : parser.arguments()) {
            std::string& text = request.emplace_back(word.view);
            for (std::size_t at = 0; word.text && at < word.size(); at = text.size())
                text += word.text->from(at);
        }
        parser.reset();
    }
    return requests;
}

/// Who gives commands, without a connection: their steps are run one by one.
///
/// Lifetime: the engine outlives it.
struct CommandClient {
    explicit CommandClient(Engine& of, bool isOperator = false) : engine(of) {
        session.isOperator = isOperator;
        session.id = ++engine.lastSession;
        engine.sessions.push_back(session);
    }

    /// Runs the first step. Requires: the request before is done. "LONG" stands for a word in several blocks.
    void begin(Words of) {
        request = std::move(of);
        words.clear();
        for (std::string const& word : request)
            words.push_back(word == "LONG" ? longWord() : Word(word));
        answer(newContext(), words);
    }
    bool isDone() const { return !context || !context->rest; }
    void step() {
        CommandContext::Step const rest = std::move(context->rest);
        if (rest(newContext()))
            context->rest = rest;
    }
    /// All steps, and the reply.
    std::string ask(Words of) {
        steps = 0;
        begin(std::move(of));
        return finish();
    }
    std::string finish() {
        while (!isDone())
            step();
        return take();
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
    Words request;
    WordList words;
    std::optional<CommandContext> context; // of the last step
    std::size_t steps = 0;

  private:
    Word longWord() const {
        LongTextPtr const text(new LongText(engine.scavenger));
        text->append(std::string(LongText::blockSize + 9, 'x'));
        return Word(text);
    }
    CommandContext& newContext() {
        ++steps;
        return context.emplace(CommandContext{engine, session, ReplyWriter(output, session.isResp3)});
    }
};

} // namespace KelKv
