#include "RequestParser.h"

#include "Number.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <utility>

namespace KelKv {

namespace {
constexpr std::size_t headerLine = 32;         // the longest line that holds only a number
constexpr std::size_t partialKept = 1 << 12;   // bytes of room that the next word finds
constexpr std::size_t droppedAtOnce = 1 << 20; // bytes of a request
constexpr std::string_view wordEnd = "\r\n";
} // namespace

void RequestParser::reset() {
    state_ = State::incomplete;
    phase_ = Phase::line;
    isLine_ = isDiscarded_ = false;
    announced_ = taken_ = left_ = 0;
    drop();
}

/// A line of which a part has come is needed to find the end.
void RequestParser::discard() {
    isDiscarded_ = true;
    std::string line = phase_ == Phase::line ? std::move(partial_) : std::string();
    drop();
    partial_ = std::move(line);
}

/// A long text holds the scavenger, and so may not be left to it.
void RequestParser::drop() {
    whole_ = {};
    longWord_ = nullptr;
    for (std::size_t const place : longWords_)
        words_[place].text = nullptr;
    longWords_.clear();
    partial_.clear();
    if (partial_.capacity() > partialKept)
        partial_.shrink_to_fit();
    TextCopies::Blocks copies = copies_.take();
    if (scavenger_ && kept_ > droppedAtOnce) {
        scavenger_->add(std::make_unique<RemainsOf<TextCopies::Blocks>>(std::move(copies)));
        scavenger_->add(std::make_unique<RemainsOf<WordList>>(std::exchange(words_, {})));
    }
    words_.clear();
    kept_ = paidFor_ = 0;
}

std::size_t RequestParser::take(std::string_view input) {
    std::size_t const size = input.size();
    while (state_ == State::incomplete && !input.empty())
        switch (phase_) {
        case Phase::line: takeLine(input); break;
        case Phase::word: takeWord(input); break;
        case Phase::wordEnd: takeWordEnd(input); break;
        }
    return size - input.size();
}

void RequestParser::fail(std::string error) {
    state_ = State::malformed;
    error_ = std::move(error);
}

// Lines

void RequestParser::takeLine(std::string_view& input) {
    std::size_t const end = input.find('\n');
    std::string_view line = input.substr(0, end);
    char const first = partial_.empty() ? input.front() : partial_.front();
    isLine_ = announced_ == 0 && first != '*';
    if (partial_.size() + line.size() > (isLine_ ? Limits::inlineLine : headerLine))
        return fail(isLine_           ? "too big inline request"
                    : announced_ == 0 ? "too big mbulk count string"
                                      : "too big bulk count string");
    if (end == std::string_view::npos || !partial_.empty())
        line = partial_.append(line);
    if (end == std::string_view::npos)
        return input.remove_prefix(input.size());
    input.remove_prefix(end + 1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    lineIs(line);
    partial_.clear();
}

void RequestParser::lineIs(std::string_view line) {
    if (isLine_)
        takeWordsOf(line);
    else if (announced_ == 0)
        arrayIs(line);
    else
        wordHeaderIs(line);
}

/// Words are parted by blanks; a word may have quotes, as a shell's.
void RequestParser::takeWordsOf(std::string_view line) {
    auto const isBlank = [](char c) { return c == ' ' || c == '\t'; };
    std::string word;
    while (state_ == State::incomplete) {
        line.remove_prefix(static_cast<std::size_t>(std::ranges::find_if_not(line, isBlank) - line.begin()));
        if (line.empty())
            break;
        word.clear();
        while (!line.empty() && !isBlank(line.front()) && state_ == State::incomplete)
            if (line.front() == '"' || line.front() == '\'')
                takeQuoted(line, word);
            else
                word += line.front(), line.remove_prefix(1);
        add(copies_.copy(word));
    }
    if (state_ == State::incomplete)
        state_ = State::complete;
}

/// Double quotes know \n, \r, \t, \b, \a and \x and two digits, single ones only \'; behind the closing quote
/// the word ends.
void RequestParser::takeQuoted(std::string_view& line, std::string& word) {
    constexpr std::string_view escapes = "n\nr\rt\tb\ba\a";
    char const quote = line.front();
    for (line.remove_prefix(1); !line.empty() && line.front() != quote; line.remove_prefix(1)) {
        if (line.front() != '\\' || line.size() < 2 || (quote == '\'' && line[1] != '\'')) {
            word += line.front();
            continue;
        }
        line.remove_prefix(1);
        std::uint8_t byte = 0;
        auto const escape =
            std::find_if(escapes.begin(), escapes.end(), [&](char c) { return c == line.front(); });
        if (quote == '"' && line.size() > 2 && line.front() == 'x' &&
            readNumber(line.substr(1, 2), byte, 16)) {
            word += static_cast<char>(byte);
            line.remove_prefix(2);
        } else if (quote == '"' && escape != escapes.end() && (escape - escapes.begin()) % 2 == 0)
            word += escape[1];
        else
            word += line.front();
    }
    if (line.empty() || (line.size() > 1 && line[1] != ' ' && line[1] != '\t'))
        return fail("unbalanced quotes in request");
    line.remove_prefix(1);
}

void RequestParser::arrayIs(std::string_view line) {
    std::int64_t count = 0;
    if (!readNumber(line.substr(1), count) || count > static_cast<std::int64_t>(Limits::words))
        fail("invalid multibulk length");
    else if (count <= 0)
        state_ = State::complete;
    else
        announced_ = static_cast<std::size_t>(count);
}

void RequestParser::wordHeaderIs(std::string_view line) {
    std::int64_t size = 0;
    if (!line.starts_with('$'))
        fail(std::string("expected '$', got '").append(line.substr(0, 1)).append("'"));
    else if (!readNumber(line.substr(1), size) || size < 0 || static_cast<std::uint64_t>(size) > Limits::word)
        fail("invalid bulk length");
    else {
        phase_ = size > 0 ? Phase::word : Phase::wordEnd;
        left_ = size > 0 ? static_cast<std::size_t>(size) : wordEnd.size();
        if (left_ > Limits::wordInOnePiece && !isDiscarded_)
            longWord_ = new LongText(scavenger_);
    }
}

// Words

/// A word that is there as a whole is copied at once.
void RequestParser::takeWord(std::string_view& input) {
    std::string_view const bytes = input.substr(0, left_);
    input.remove_prefix(bytes.size());
    left_ -= bytes.size();
    if (!isDiscarded_)
        keep(bytes);
    if (left_ > 0)
        return;
    phase_ = Phase::wordEnd;
    left_ = wordEnd.size();
}

void RequestParser::keep(std::string_view bytes) {
    kept_ += bytes.size();
    if (longWord_)
        longWord_->append(bytes);
    else if (left_ > 0 || !partial_.empty())
        partial_.append(bytes);
    else
        whole_ = copies_.copy(bytes);
}

void RequestParser::takeWordEnd(std::string_view& input) {
    if (input.front() != wordEnd[wordEnd.size() - left_])
        return fail("an argument is longer than announced");
    input.remove_prefix(1);
    if (--left_ > 0)
        return;
    phase_ = Phase::line;
    if (longWord_)
        add(std::exchange(longWord_, nullptr));
    else if (partial_.empty())
        add(std::exchange(whole_, {}));
    else
        add(partial_.size() > partialKept ? copies_.keep(std::exchange(partial_, {}))
                                          : copies_.copy(partial_));
    partial_.clear();
    if (taken_ == announced_)
        state_ = State::complete;
}

void RequestParser::add(Word word) {
    ++taken_;
    if (isDiscarded_)
        return;
    if (word.text)
        longWords_.push_back(words_.size());
    kept_ += sizeof(Word);
    words_.push_back(std::move(word));
    if (kept_ - paidFor_ >= TextCopies::blockMax)
        payForRoom();
}

/// The scavenger is one among those who take turns: left to it alone, what many clients' large requests leave
/// would grow faster than it is freed.
void RequestParser::payForRoom() {
    paidFor_ = kept_;
    if (scavenger_)
        scavenger_->dropOne();
}

} // namespace KelKv
