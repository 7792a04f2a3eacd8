#include "EngineTest.h"

#include <kelkv/RequestParser.h>

#include <gmock/gmock.h>

namespace KelKv {

namespace {

using Words = std::vector<std::string>;
using State = RequestParser::State;
using RequestParserTest = EngineTest;

std::string bulk(std::string const& word) {
    return "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
}

Words taken(RequestParser& parser) {
    Words words;
    for (Word const& word : parser.arguments()) {
        std::string& text = words.emplace_back(word.view);
        for (std::size_t at = 0; word.text && at < word.size(); at = text.size())
            text += word.text->from(at);
    }
    parser.reset();
    return words;
}

} // namespace

// What is long is read in pieces of a few sizes only.
TEST_F(RequestParserTest, ReadsAStreamInPiecesOfAnySize) {
    std::string stream =
        "*2\r\n$3\r\nGET\r\n$4\r\na\r\nb\r\nPING\r\n"
        "*3\r\n$3\r\nSET\r\n$0\r\n\r\n$14\r\n*1\r\n$4\r\nPING\r\n\r\n\r\n"
        "  set \t k   v \n*0\r\n*-7\r\n\"a \\x41\\n\\\"\" 'b\\'\\n' c''\r\n*1\r\n$4\r\nQUIT\r\n";
    std::vector<Words> expected{{"GET", "a\r\nb"},
                                {"PING"},
                                {"SET", "", "*1\r\n$4\r\nPING\r\n"},
                                {},
                                {"set", "k", "v"},
                                {},
                                {},
                                {"a A\n\"", "b'\\n", "c"},
                                {"QUIT"}};
    std::size_t const shortEnd = stream.size(), shortRequests = expected.size();
    for (std::size_t const size : {std::size_t{5000}, Limits::wordInOnePiece, Limits::wordInOnePiece + 1}) {
        expected.push_back({std::string(size, 'x'), "y"});
        stream += "*2\r\n" + bulk(expected.back()[0]) + bulk("y");
    }
    expected.push_back(Words(20000, "w"));
    stream += "*20000\r\n";
    for (std::string const& word : expected.back())
        stream += bulk(word);
    for (std::size_t size = 1; size <= stream.size(); size += size < shortEnd ? 1 : stream.size() / 5) {
        RequestParser parser(engine.scavenger);
        std::vector<Words> requests;
        std::string_view rest = std::string_view(stream).substr(0, size < shortEnd ? shortEnd : stream.npos);
        for (std::string_view piece; !rest.empty() || !piece.empty();) {
            if (piece.empty())
                piece = rest.substr(0, size), rest.remove_prefix(piece.size());
            piece.remove_prefix(parser.take(piece));
            if (parser.state() == State::complete)
                requests.push_back(taken(parser));
        }
        EXPECT_EQ(requests.size(), size < shortEnd ? shortRequests : expected.size()) << size;
        EXPECT_TRUE(std::equal(requests.begin(), requests.end(), expected.begin())) << size;
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
        parser.take(std::string_view(request).substr(0, at));
        parser.discard();
        EXPECT_EQ(parser.take(request.substr(at) + "PING\r\n"), request.size() - at);
        EXPECT_TRUE(parser.state() == State::complete && parser.isDiscarded() && parser.kept() == 0);
        parser.take("PING\r\n");
        parser.reset();
        EXPECT_EQ(parser.take("PING\r\n"), 6u);
        EXPECT_EQ(taken(parser), Words{"PING"});
    }
}

} // namespace KelKv
