#include "EngineTest.h"

namespace KelKv {

using State = RequestParser::State;
using RequestParserTest = EngineTest;

TEST_F(RequestParserTest, ReadsAStreamInPiecesOfAnySize) {
    std::string const longer(5000, 'x'); // than what is copied beside the others
    std::string const stream =
        "*2\r\n$3\r\nGET\r\n$4\r\na\r\nb\r\nPING\r\n"
        "*3\r\n$3\r\nSET\r\n$0\r\n\r\n$14\r\n*1\r\n$4\r\nPING\r\n\r\n\r\n"
        "  set \t \"k\"\tv \n*0\r\n*-7\r\n\"a \\x41\\n\\\"\" 'b\\'\\n' c''\r\n*1\r\n$4\r\nQUIT\r\n*1\r\n" +
        bulk(longer);
    std::vector<Words> const expected{{"GET", "a\r\nb"},
                                      {"PING"},
                                      {"SET", "", "*1\r\n$4\r\nPING\r\n"},
                                      {},
                                      {"set", "k", "v"},
                                      {},
                                      {},
                                      {"a A\n\"", "b'\\n", "c"},
                                      {"QUIT"},
                                      {longer}};
    for (std::size_t size = 1; size <= stream.size(); ++size) {
        RequestParser parser(engine.scavenger);
        EXPECT_TRUE(requestsIn(parser, stream, size) == expected) << size;
        EXPECT_EQ(parser.kept(), 0u);
    }
}

TEST_F(RequestParserTest, LeavesWhatIsLargeInPieces) {
    std::string request = "*1001\r\n" + bulk(std::string(Limits::wordInOnePiece + 1, 'l'));
    for (int i = 0; i < 1000; ++i)
        request += bulk(std::string(4000, 'x'));
    for (bool const isWhole : {false, true}) {
        RequestParser(engine.scavenger).take(std::string_view(request).substr(0, request.size() - !isWhole));
        int pieces = 0;
        while (engine.scavenger->dropOne())
            ++pieces;
        EXPECT_GT(pieces, 30) << "of 128 KiB";
    }
}

// Where a limit is, the last that is taken comes before the first that is not.
TEST_F(RequestParserTest, RefusesWhatCannotBecomeARequestAtItsFirstWrongByte) {
    for (auto const& [input, error] : std::initializer_list<std::pair<std::string, char const*>>{
             {"*1048576\r\n", nullptr},
             {"*1048577\r\n", "multibulk length"},
             {"*1x\r\n", "multibulk length"},
             {"*1\r\nPING\r\n", "expected '$', got 'P'"},
             {"*1\r\n$-1\r\n", "bulk length"},
             {"*1\r\n$536870912\r\n", nullptr},
             {"*1\r\n$536870913\r\n", "bulk length"},
             {"*1\r\n$9223372036854775808\r\n", "bulk length"},
             {"*1\r\n$4\r\nPINGPONG\r\n", "longer than announced"},
             {"*1\r\n$4\r\nPING\rX", "longer than announced"},
             {"*1\r\n$" + std::string(31, '1'), nullptr},
             {"*1\r\n$" + std::string(32, '1'), "too big"},
             {std::string(Limits::inlineLine, 'x'), nullptr},
             {std::string(Limits::inlineLine + 1, 'x'), "too big inline request"},
             {"'a\n", "unbalanced quotes"},
             {"\"a\"b\n", "unbalanced quotes"}}) {
        RequestParser parser(engine.scavenger);
        parser.take(input);
        EXPECT_EQ(parser.state() == State::malformed, error != nullptr) << input.substr(0, 40);
        if (error) {
            EXPECT_THAT(std::string(parser.error()), testing::HasSubstr(error));
            parser.take("PING\r\n");
            EXPECT_EQ(parser.state(), State::malformed);
        }
    }
}

// Wherever it is discarded the request is taken to its end, which only the end of its last word is.
TEST_F(RequestParserTest, KeepsNothingOfARequestThatIsDiscarded) {
    std::string const request = "*3\r\n" + bulk("SET") + bulk("k") + bulk(std::string(5000, 'v'));
    for (std::size_t at = 0; at < request.size(); ++at) {
        RequestParser parser(engine.scavenger);
        parser.take(request.substr(0, at));
        parser.discard();
        parser.take(request.substr(at, request.size() - 1 - at));
        EXPECT_EQ(parser.kept(), 0u);
        EXPECT_EQ(requestsIn(parser, "\nPING\r\n"), (std::vector<Words>{{}, {"PING"}}));
    }
}

} // namespace KelKv
