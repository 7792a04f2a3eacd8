#include "Glob.h"

#include <algorithm>

namespace KelKv {

namespace {

/// The byte at `at`, or the one behind a backslash; moves `at` behind it.
char literal(std::string_view pattern, std::size_t& at) {
    if (pattern[at] == '\\' && at + 1 < pattern.size())
        ++at;
    return pattern[at++];
}

/// Whether the set that begins behind its bracket has the byte; moves `at` behind the set.
bool setHas(std::string_view pattern, std::size_t& at, char byte) {
    bool const inverted = at < pattern.size() && pattern[at] == '^';
    at += inverted ? 1 : 0;
    bool has = false;
    while (at < pattern.size() && pattern[at] != ']') {
        char const first = literal(pattern, at);
        char last = first;
        if (at + 1 < pattern.size() && pattern[at] == '-' && pattern[at + 1] != ']')
            last = literal(pattern, ++at);
        has = has || (std::min(first, last) <= byte && byte <= std::max(first, last));
    }
    at = std::min(at + 1, pattern.size());
    return has != inverted;
}

/// Whether what stands at `at`, which is no star, matches the byte; moves `at` behind it.
bool oneMatches(std::string_view pattern, std::size_t& at, char byte) {
    switch (pattern[at]) {
    case '?': ++at; return true;
    case '[': return setHas(pattern, ++at, byte);
    default: return literal(pattern, at) == byte;
    }
}

} // namespace

bool globMatches(std::string_view pattern, std::string_view text) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t behindStar = std::string_view::npos;
    std::size_t starTakesTo = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            behindStar = ++p;
            starTakesTo = t;
            if (p == pattern.size())
                return true;
            continue;
        }
        std::size_t next = p;
        if (p < pattern.size() && oneMatches(pattern, next, text[t])) {
            p = next;
            ++t;
        } else if (behindStar != std::string_view::npos) {
            p = behindStar; // the star takes one byte more
            t = ++starTakesTo;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

} // namespace KelKv
