#include <kelkv/Resp.h>

#include <gmock/gmock.h>

namespace KelKv {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Words = std::vector<std::string>;

/// What a connection does: input grows, whole requests are taken from its beginning.
class Feed {
  public:
    /// False once the input is malformed.
    bool operator()(std::string_view piece) {
        input_ += piece;
        RequestParser::State state;
        while ((state = parser_.parse(input_)) == RequestParser::State::complete) {
            requests.emplace_back(parser_.arguments().begin(), parser_.arguments().end());
            input_.erase(0, parser_.size());
            parser_.reset();
        }
        return state == RequestParser::State::incomplete;
    }
    std::string_view error() const { return parser_.error(); }
    bool hasRest() const { return !input_.empty(); }

    std::vector<Words> requests;

  private:
    std::string input_;
    RequestParser parser_;
};

std::string const stream = "*2\r\n$3\r\nGET\r\n$4\r\na\r\nb\r\n"
                           "PING\r\n"
                           "*3\r\n$3\r\nSET\r\n$0\r\n\r\n$14\r\n*1\r\n$4\r\nPING\r\n\r\n"
                           "\r\n"
                           "  set \t k   v \n"
                           "*0\r\n"
                           "*1\r\n$4\r\nQUIT\r\n";

void expectStreamRead(Feed const& feed) {
    EXPECT_THAT(feed.requests,
                ElementsAre(Words{"GET", "a\r\nb"}, Words{"PING"}, Words{"SET", "", "*1\r\n$4\r\nPING\r\n"},
                            Words{}, Words{"set", "k", "v"}, Words{}, Words{"QUIT"}));
    EXPECT_FALSE(feed.hasRest());
}

} // namespace

TEST(RequestParser, ReadsAStreamWhereverItIsSplit) {
    for (std::size_t split = 0; split <= stream.size(); ++split) {
        SCOPED_TRACE(split);
        Feed feed;
        ASSERT_TRUE(feed(stream.substr(0, split)));
        ASSERT_TRUE(feed(stream.substr(split)));
        expectStreamRead(feed);
    }
}

TEST(RequestParser, ReadsAStreamByteByByte) {
    Feed feed;
    for (char const byte : stream)
        ASSERT_TRUE(feed(std::string_view(&byte, 1)));
    expectStreamRead(feed);
}

TEST(RequestParser, RefusesWhatCannotBecomeARequestAtItsFirstWrongByte) {
    std::string const longLine(Limits::inlineLine + 1, 'x');
    std::string words;
    for (std::size_t i = 0; i <= Limits::arguments; ++i)
        words += "a ";
    struct Case {
        std::string input;
        char const* error;
    };
    for (Case const& c : std::vector<Case>{
             {"*x\r\n", "number of arguments"},
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
             {"*" + std::string(40, '1'), "line is too long"},
             {"*1\r\n$" + std::string(40, '1'), "line is too long"},
             {longLine, "line is too long"},
             {words + "\r\n", "too many arguments"},
         }) {
        SCOPED_TRACE(c.input.substr(0, 40));
        Feed feed;
        EXPECT_FALSE(feed(c.input));
        EXPECT_THAT(std::string(feed.error()), HasSubstr(c.error));
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
