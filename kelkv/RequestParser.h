#pragma once

#include "Text.h"
#include "TextCopies.h"
#include "WordList.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace KelKv {

/// The largest request. What it takes to work on one is cut into steps; these bound what it takes to keep it.
struct Limits {
    static constexpr std::size_t word = Text::sizeMax;     // bytes
    static constexpr std::size_t wordInOnePiece = 1 << 20; // of a key or a pattern; beyond, a long text
    static constexpr std::size_t words = 1 << 20;
    static constexpr std::size_t inlineLine = 1 << 16; // bytes
};

/// Parses RESP requests, and lines of words, from input that comes in pieces.
///
/// It keeps the words of the request under way, so that the input is done with as soon as it is taken; each
/// byte is looked at once. A client's announcement of a size reserves nothing. What a large request leaves is
/// the scavenger's, and who sends large ones frees as much of what others left.
class RequestParser {
  public:
    enum class State { incomplete, complete, malformed };

    /// A null scavenger is for those who know of no long words.
    explicit RequestParser(Mox::Ptr<Scavenger> scavenger = nullptr) : scavenger_(std::move(scavenger)) {}
    ~RequestParser() { drop(); }
    RequestParser(RequestParser const&) = delete;
    RequestParser& operator=(RequestParser const&) = delete;

    /// Takes what belongs to the request under way; how many bytes that were.
    std::size_t take(std::string_view input);
    State state() const { return state_; }

    /// Of a complete request, empty for an empty line; good until `reset()`.
    Arguments arguments() const { return words_; }
    /// Whether it is a line of words.
    bool isLine() const { return isLine_; }
    /// What is wrong with a malformed one.
    std::string_view error() const { return error_; }
    /// Bytes of the request under way that it keeps.
    std::size_t kept() const { return kept_; }

    /// From here on the request's words are taken and not kept: it is complete with none of them.
    void discard();
    bool isDiscarded() const { return isDiscarded_; }
    /// For the next request.
    void reset();

  private:
    enum class Phase { line, word, wordEnd };

    void takeLine(std::string_view& input);
    void lineIs(std::string_view line);
    void takeWordsOf(std::string_view line);
    void takeQuoted(std::string_view& line, std::string& word);
    void arrayIs(std::string_view line);
    void wordHeaderIs(std::string_view line);
    void takeWord(std::string_view& input);
    void takeWordEnd(std::string_view& input);
    void keep(std::string_view bytes);
    void add(Word word);
    void payForRoom();
    void fail(std::string error);
    void drop();

    Mox::Ptr<Scavenger> const scavenger_;
    State state_ = State::incomplete;
    Phase phase_ = Phase::line;
    bool isLine_ = false;
    bool isDiscarded_ = false;
    std::size_t announced_ = 0; // words, 0 before the first line
    std::size_t taken_ = 0;     // words
    std::size_t left_ = 0;      // bytes of the word under way, or of its end
    std::size_t kept_ = 0;
    std::string error_;

    // The line or word under way, by how it came.
    std::string partial_;    // in pieces
    std::string_view whole_; // copied
    LongTextPtr longWord_;

    TextCopies copies_; // of words that are not long
    WordList words_;
    std::vector<std::size_t> longWords_; // their places
    std::size_t paidFor_ = 0;            // bytes of those that it keeps
};

} // namespace KelKv
