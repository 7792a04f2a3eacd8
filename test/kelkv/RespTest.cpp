#include <kelkv/Resp.h>

#include <gmock/gmock.h>

namespace KelKv {

namespace {

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

std::string words(std::size_t count) {
    std::string line;
    for (std::size_t i = 0; i < count; ++i)
        line += "a ";
    return line + "\r\n";
}

} // namespace

TEST(RequestParser, ReadsAStreamInPiecesOfAnySize) {
    std::string_view const stream = "*2\r\n$3\r\nGET\r\n$4\r\na\r\nb\r\nPING\r\n"
                                    "*3\r\n$3\r\nSET\r\n$0\r\n\r\n$14\r\n*1\r\n$4\r\nPING\r\n\r\n\r\n"
                                    "  set \t k   v \n*0\r\n*1\r\n$4\r\nQUIT\r\n";
    for (std::size_t size = 1; size <= stream.size(); ++size) {
        Feed feed;
        for (std::size_t at = 0; at < stream.size(); at += size)
            ASSERT_TRUE(feed(stream.substr(at, size))) << size;
        EXPECT_THAT(feed.requests, testing::ElementsAre(Words{"GET", "a\r\nb"}, Words{"PING"},
                                                        Words{"SET", "", "*1\r\n$4\r\nPING\r\n"}, Words{},
                                                        Words{"set", "k", "v"}, Words{}, Words{"QUIT"}));
        EXPECT_EQ(feed.input, "");
    }
}

// Where a limit is, the last that is taken comes before the first that is not.
TEST(RequestParser, RefusesWhatCannotBecomeARequestAtItsFirstWrongByte) {
    for (auto const& [input, error] : std::initializer_list<std::pair<std::string, char const*>>{
             {"*1024\r\n", nullptr},
             {"*1025\r\n", "number of arguments"},
             {"*1x\r\n", "number of arguments"},
             {"*99999999999999999999\r\n", "number of arguments"},
             {"*1\r\nPING\r\n", "begin with '$'"},
             {"*1\r\n$-1\r\n", "size"},
             {"*1\r\n$\r\n", "size"},
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
        SCOPED_TRACE(input.substr(0, 40));
        Feed feed;
        EXPECT_EQ(feed(input), !error);
        if (!error)
            continue;
        EXPECT_THAT(std::string(feed.parser.error()), testing::HasSubstr(error));
        EXPECT_FALSE(feed("PING\r\n")) << "it stays refused";
        EXPECT_TRUE(feed.requests.empty());
    }
}

TEST(ReplyWriter, KeepsAnErrorInOneLine) {
    std::string buffer = "+\r\n";
    ReplyWriter(buffer).error("no 'a\r\n+OK'");
    EXPECT_EQ(buffer, "+\r\n-ERR no 'a  +OK'\r\n");
}

} // namespace KelKv
