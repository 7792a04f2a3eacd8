#include "GlobMatch.h"

#include <algorithm>

namespace KelKv {

namespace {
unsigned char byteOf(char c) { return static_cast<unsigned char>(c); }
bool isSpecial(char c) { return c == '*' || c == '?' || c == '[' || c == '\\'; }
} // namespace

std::optional<bool> GlobMatch::step(std::size_t budget) {
    while (budget > 0 && !result_) {
        std::size_t const equal = inSet_ ? 0 : takeEqual(budget);
        if (equal == 0)
            advance();
        budget -= std::max<std::size_t>(equal, 1);
    }
    return result_;
}

/// Bytes that stand for themselves, which are most of a pattern, go in one loop. Returns how many were equal.
std::size_t GlobMatch::takeEqual(std::size_t most) {
    char const* const pattern = pattern_.data() + at_;
    char const* const text = text_.data() + textAt_;
    most = std::min({most, pattern_.size() - at_, text_.size() - textAt_});
    std::size_t equal = 0;
    while (equal < most && pattern[equal] == text[equal] && !isSpecial(pattern[equal]))
        ++equal;
    at_ += equal;
    textAt_ += equal;
    return equal;
}

void GlobMatch::advance() {
    bool const atEnd = at_ == pattern_.size();
    if (inSet_)
        atEnd || pattern_[at_] == ']' ? endSet() : takeOfSet();
    else if (!atEnd && pattern_[at_] == '*')
        takeStar();
    else if (textAt_ == text_.size())
        result_ = atEnd;
    else if (atEnd)
        matched(false);
    else
        takeByte();
}

void GlobMatch::takeStar() {
    behindStar_ = ++at_;
    starTakesTo_ = textAt_;
    if (at_ == pattern_.size())
        result_ = true;
}

void GlobMatch::takeByte() {
    switch (pattern_[at_]) {
    case '?': ++at_; return matched(true);
    case '[': return beginSet();
    default: matched(literal() == text_[textAt_]);
    }
}

/// The byte that stands there, or the one behind a backslash.
char GlobMatch::literal() {
    if (pattern_[at_] == '\\' && at_ + 1 < pattern_.size())
        ++at_;
    return pattern_[at_++];
}

void GlobMatch::beginSet() {
    ++at_;
    inSet_ = true;
    setHas_ = false;
    isInverted_ = at_ < pattern_.size() && pattern_[at_] == '^';
    at_ += isInverted_ ? 1 : 0;
}

/// One byte of the set, or one range.
void GlobMatch::takeOfSet() {
    char const first = literal();
    char last = first;
    if (at_ + 1 < pattern_.size() && pattern_[at_] == '-' && pattern_[at_ + 1] != ']') {
        ++at_;
        last = literal();
    }
    auto const [least, most] = std::minmax({byteOf(first), byteOf(last)});
    unsigned char const byte = byteOf(text_[textAt_]);
    setHas_ = setHas_ || (least <= byte && byte <= most);
}

void GlobMatch::endSet() {
    at_ = std::min(at_ + 1, pattern_.size());
    inSet_ = false;
    matched(setHas_ != isInverted_);
}

/// Goes on behind a byte of the text that matches; else the star takes one byte more.
void GlobMatch::matched(bool matches) {
    if (matches) {
        ++textAt_;
    } else if (behindStar_ == std::string_view::npos) {
        result_ = false;
    } else {
        at_ = behindStar_;
        textAt_ = ++starTakesTo_;
    }
}

} // namespace KelKv
