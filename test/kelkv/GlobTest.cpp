#include <kelkv/Glob.h>

#include <gtest/gtest.h>

#include <string>

namespace KelKv {

TEST(Glob, MatchesTheWholeText) {
    struct Case {
        char const* pattern;
        char const* text;
        bool matches;
    };
    for (Case const& c : {
             Case{"", "", true},
             Case{"*", "", true},
             Case{"a*", "abc", true},
             Case{"a*c", "abcc", true},
             Case{"a*c", "abcd", false},
             Case{"a**b", "ab", true},
             Case{"*ab*ab*", "aabab", true},
             Case{"*ab*ab*", "aab", false},
             Case{"?", "", false},
             Case{"h?llo", "hello", true},
             Case{"[abc]", "b", true},
             Case{"[a-c]x", "cx", true},
             Case{"[c-a]", "b", true},
             Case{"[^a-c]", "b", false},
             Case{"[^a-c]", "d", true},
             Case{"[a-]", "-", true},
             Case{"[\\]]", "]", true},
             Case{"[ab", "b", true},
             Case{"[", "[", false},
             Case{"\\*", "*", true},
             Case{"\\*", "a", false},
             Case{"a\\", "a\\", true},
         })
        EXPECT_EQ(globMatches(c.pattern, c.text), c.matches) << c.pattern << " on " << c.text;
}

TEST(Glob, TakesNoPatternForALongTime) {
    std::string pattern;
    for (int i = 0; i < 40; ++i)
        pattern += "a*";
    // A search that goes back to earlier stars too would not end in a lifetime.
    EXPECT_FALSE(globMatches(pattern + "b", std::string(200, 'a')));
}

} // namespace KelKv
