#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace KelKv {

/// Whether a whole text matches a pattern: `*` any run of bytes, `?` one byte, `[a-c]` one of a set, `[^a]`
/// one outside it, `\x` the byte x. A set without its bracket reaches to the pattern's end.
///
/// It is found in slices, which go on where the last one stopped, within a set, too: a long text against a
/// long pattern may take seconds in all. Only the latest star takes another byte after a mismatch, so that
/// the whole costs no more than the pattern's length times the text's.
///
/// Lifetime: pattern and text outlive it, where they are.
class GlobMatch {
  public:
    GlobMatch(std::string_view pattern, std::string_view text) : pattern_(pattern), text_(text) {}

    /// Goes on for so many bytes of pattern; nothing when that was not enough. Requires: it was not found
    /// yet.
    std::optional<bool> step(std::size_t budget);

  private:
    std::size_t takeEqual(std::size_t most);
    void advance();
    void takeStar();
    void beginSet();
    void takeOfSet();
    void endSet();
    void takeByte();
    char literal();
    void matched(bool matches);

    std::string_view const pattern_;
    std::string_view const text_;
    std::size_t at_ = 0;     // in the pattern
    std::size_t textAt_ = 0; // in the text
    std::optional<bool> result_;

    // The latest star
    std::size_t behindStar_ = std::string_view::npos; // in the pattern; npos: there was none
    std::size_t starTakesTo_ = 0;                     // in the text

    // The set that is looked through
    bool inSet_ = false;
    bool isInverted_ = false;
    bool setHas_ = false;
};

} // namespace KelKv
