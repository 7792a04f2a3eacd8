#include <kelkv/Resp.h>

#include <boost/algorithm/string.hpp>
#include <gmock/gmock.h>

namespace KelKv {

namespace {

using Words = std::vector<std::string>;

std::string words(std::size_t count) {
    return boost::replace_all_copy(std::string(count, 'a'), "a", "a ") + "\n";
}

} // namespace

TEST(RequestParser, ReadsAStreamInPiecesOfAnySize) {
    std::string_view const stream = "*2\r\n$3\r\nGET\r\n$4\r\na\r\nb\r\nPING\r\n"
                                    "*3\r\n$3\r\nSET\r\n$0\r\n\r\n$14\r\n*1\r\n$4\r\nPING\r\n\r\n\r\n"
                                    "  set \t k   v \n*0\r\n*1\r\n$4\r\nQUIT\r\n";
    for (std::size_t size = 1; size <= stream.size(); ++size) {
        std::string input;
        RequestParser parser;
        std::vector<Words> requests;
        for (std::size_t at = 0; at < stream.size(); at += size) {
            input += stream.substr(at, size);
            for (; parser.parse(input) == RequestParser::State::complete; parser.reset()) {
                requests.emplace_back(parser.arguments().begin(), parser.arguments().end());
                input.erase(0, parser.size());
            }
        }
        EXPECT_THAT(requests, testing::ElementsAre(Words{"GET", "a\r\nb"}, Words{"PING"},
                                                   Words{"SET", "", "*1\r\n$4\r\nPING\r\n"}, Words{},
                                                   Words{"set", "k", "v"}, Words{}, Words{"QUIT"}));
        EXPECT_EQ(input, "") << size;
    }
}

// Where a limit is, the last that is taken comes before the first that is not.
TEST(RequestParser, RefusesWhatCannotBecomeARequestAtItsFirstWrongByte) {
    for (auto const& [input, error] : std::initializer_list<std::pair<std::string, char const*>>{
             {"*1024\r\n", nullptr},
             {"*1025\r\n", "number of arguments"},
             {"*1x\r\n", "number of arguments"},
             {"*1\r\nPING\r\n", "begin with '$'"},
             {"*1\r\n$-1\r\n", "size"},
             {"*1\r\n$1048572\r\n" + std::string(1048572, 'x') + "\r\n", nullptr},
             {"*1\r\n$1048573\r\n", "too large"},
             {"*1\r\n$9223372036854775807\r\n", "too large"},
             {"*2\r\n$1048500\r\n" + std::string(1048500, 'x') + "\r\n$61\r\n", "too large"},
             {"*1\r\n$4\r\nPINGPONG\r\n", "longer than announced"},
             {"*1\r\n$" + std::string(31, '1'), nullptr},
             {"*1\r\n$" + std::string(32, '1'), "line is too long"},
             {std::string(Limits::inlineLine, 'x'), nullptr},
             {std::string(Limits::inlineLine + 1, 'x'), "line is too long"},
             {words(Limits::arguments), nullptr},
             {words(Limits::arguments + 1), "too many arguments"}}) {
        RequestParser parser;
        EXPECT_EQ(parser.parse(input) == RequestParser::State::malformed, error != nullptr)
            << input.substr(0, 40);
        if (error) {
            EXPECT_THAT(std::string(parser.error()), testing::HasSubstr(error));
            EXPECT_EQ(parser.parse(input + "PING\r\n"), RequestParser::State::malformed);
        }
    }
}

} // namespace KelKv
