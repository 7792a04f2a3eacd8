#include <kelkv/Resp.h>

#include <gmock/gmock.h>

namespace KelKv {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Words = std::vector<std::string>;

/// What a connection does: input grows, whole requests are taken from its beginning.
struct Feed {
    /// False once the input is malformed.
    bool operator()(std::string_view piece) {
        input += piece;
        RequestParser::State state;
        while ((state = parser.parse(input)) == RequestParser::State::complete) {
            requests.emplace_back(parser.arguments().begin(), parser.arguments().end());
            input.erase(0, parser.size());
            parser.reset();
        }
        return state == RequestParser::State::incomplete;
    }

    std::string input;
    RequestParser parser;
    std::vector<Words> requests;
};

std::string const stream = "*2\r\n$3\r\nGET\r\n$4\r\na\r\nb\r\n"
                           "PING\r\n"
                           "*3\r\n$3\r\nSET\r\n$0\r\n\r\n$14\r\n*1\r\n$4\r\nPING\r\n\r\n"
                           "\r\n"
                           "  set \t k   v \n"
                           "*0\r\n"
                           "*1\r\n$4\r\nQUIT\r\n";

} // namespace

TEST(RequestParser, ReadsAStreamInPiecesOfAnySize) {
    for (std::size_t size = 1; size <= stream.size(); ++size) {
        SCOPED_TRACE(size);
        Feed feed;
        for (std::size_t at = 0; at < stream.size(); at += size)
            ASSERT_TRUE(feed(std::string_view(stream).substr(at, size)));
        EXPECT_THAT(feed.requests, ElementsAre(Words{"GET", "a\r\nb"}, Words{"PING"},
                                               Words{"SET", "", "*1\r\n$4\r\nPING\r\n"}, Words{},
                                               Words{"set", "k", "v"}, Words{}, Words{"QUIT"}));
        EXPECT_EQ(feed.input, "");
    }
}

TEST(RequestParser, RefusesWhatCannotBecomeARequestAtItsFirstWrongByte) {
    std::string words;
    for (std::size_t i = 0; i <= Limits::arguments; ++i)
        words += "a ";
    for (auto const& [input, error] : std::initializer_list<std::pair<std::string, char const*>>{
             {"*1x\r\n", "number of arguments"},
             {"*1025\r\n", "number of arguments"},
             {"*99999999999999999999\r\n", "number of arguments"},
             {"*1\r\nPING\r\n", "begin with '$'"},
             {"*1\r\n$-1\r\n", "size"},
             {"*1\r\n$\r\n", "size"},
             {"*1\r\n$1048577\r\n", "too large"},
             {"*1\r\n$9223372036854775807\r\n", "too large"},
             {"*2\r\n$1048500\r\n" + std::string(1048500, 'x') + "\r\n$1000\r\n", "too large"},
             {"*1\r\n$4\r\nPINGPONG\r\n", "longer than announced"},
             {"*1\r\n$" + std::string(40, '1'), "line is too long"},
             {std::string(Limits::inlineLine + 1, 'x'), "line is too long"},
             {words + "\r\n", "too many arguments"},
         }) {
        SCOPED_TRACE(input.substr(0, 40));
        Feed feed;
        EXPECT_FALSE(feed(input));
        EXPECT_THAT(std::string(feed.parser.error()), HasSubstr(error));
        EXPECT_FALSE(feed("PING\r\n")) << "it stays refused";
        EXPECT_TRUE(feed.requests.empty());
    }
}

TEST(RequestParser, TakesTheLargestRequest) {
    std::size_t const size = Limits::request - 100;
    Feed feed;
    EXPECT_TRUE(feed("*2\r\n$4\r\nECHO\r\n$" + std::to_string(size) + "\r\n" + std::string(size, 'x')));
    EXPECT_TRUE(feed("\r\n"));
    ASSERT_EQ(feed.requests.size(), 1u);
    EXPECT_EQ(feed.requests[0][1].size(), size);
}

TEST(ReplyWriter, KeepsAnErrorInOneLine) {
    std::string buffer;
    ReplyWriter(buffer).error("no 'a\r\n+OK'");
    EXPECT_EQ(buffer, "-ERR no 'a  +OK'\r\n");
}

} // namespace KelKv
