#include "EngineTest.h"

#include <kelkv/GlobMatch.h>

#include <sstream>

namespace KelKv {

namespace {

/// In slices of so many steps, and how many they were.
std::pair<bool, std::size_t> inSlices(std::string_view pattern, std::string_view text, std::size_t budget) {
    GlobMatch match(pattern, text);
    for (std::size_t slices = 1;; ++slices)
        if (auto const found = match.step(budget))
            return {*found, slices};
}

// A pattern, texts that match it, those behind a "!" that do not; "~" is the empty one.
char const* const rows = R"(
    ~ ~ !a   * ~ a ab   a* a abc !~ !ba   a*c ac abcc acbc !abcd !c   a**b ab aab !a !abc   *? a ab !~
    *ab*ab* abab aabab xabxabx !aab !aba  ? a ? !~ !ab   h?llo hello !hllo !heello   [abc] a b c !d !~ !ab
    [a-c]x ax bx cx !`x !dx !-x !a   [c-a] a b c !d !-   [^a-c] d ^ !a !b !c !~   [a^] ^ a !b   [a-] a - !b
    [\]-_] ] ^ _ !\ !-   [a-\]] a ] _ !\ !b !-   [ab a b ![ !c   [ ![ !~   []x !] !x !]x   [a][b] ab !ac !bb   [^a][b] cb !cc !ab  [^]x ax !x !^
    *[0-9]z 9z a1z 11z !z !az !1   \*\?\[ *?[ !a?[ !\*?[   a\ a\ !a   [a-)"
                         "\xff] b \x80 \xff !A !`";

} // namespace

TEST(GlobMatch, MatchesTheWholeTextInSlicesOfAnySize) {
    for (std::string const& row : rowsOf(rows)) {
        std::istringstream words(row);
        std::string pattern, text;
        words >> pattern;
        while (words >> text)
            for (std::size_t const budget : {1u, 3u, 1000u})
                EXPECT_EQ(inSlices(boost::erase_all_copy(pattern, "~"),
                                   boost::trim_copy_if(text, boost::is_any_of("!~")), budget)
                              .first,
                          text[0] != '!')
                    << pattern << " on " << text;
    }
}

TEST(GlobMatch, TakesNoLongerThanThePatternTimesTheText) {
    std::string const set = "*[" + std::string(1000, 'a') + "]b";
    for (auto const& pattern : {boost::replace_all_copy(std::string(40, 'a'), "a", "a*") + "b", set}) {
        auto const [matches, slices] = inSlices(pattern, std::string(200, 'a'), 1);
        EXPECT_FALSE(matches);
        EXPECT_LT(slices, (pattern.size() + 1) * 201) << pattern;
    }
    EXPECT_GT(inSlices(set, std::string(200, 'a'), 1000).second, 200u) << "a long set is one step";
}

} // namespace KelKv
