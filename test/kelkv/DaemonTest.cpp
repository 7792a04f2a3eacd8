#include <kelkv/Daemon.h>

#include <support/Python.h>
#include <support/VirtualTime.h>

#include <boost/asio/ip/tcp.hpp>
#include <gmock/gmock.h>

namespace KelKv {

namespace {

using boost::asio::ip::tcp;
using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Exchanges = std::initializer_list<std::pair<std::string, std::string>>;

constexpr std::size_t turnsMax = 200000;

/// A client in the daemon's own thread: it turns the daemon's loop while it waits.
class Client {
  public:
    Client(Kel::EventLoop& loop, auto const& port) : loop_(loop) {
        socket_.connect({boost::asio::ip::address_v4::loopback(), port.number()});
        socket_.non_blocking(true);
    }
    void close() { socket_.close(); }
    void sendNoMore() { socket_.shutdown(tcp::socket::shutdown_send); }

    /// As much as the daemon takes within so many turns.
    std::size_t sendSome(std::string_view bytes, std::size_t turns) {
        std::size_t sent = 0;
        for (; turns > 0 && sent < bytes.size(); --turns) {
            sent += socket_.write_some(boost::asio::buffer(bytes.substr(sent)), error_);
            loop_.runOnce();
        }
        return sent;
    }
    void send(std::string_view bytes) { EXPECT_EQ(sendSome(bytes, turnsMax), bytes.size()); }

    /// What comes until there are so many bytes, until the daemon closes, or within so many turns.
    std::string receive(std::size_t size, std::size_t turns = turnsMax) {
        for (; turns > 0 && received_.size() < size && error_ != boost::asio::error::eof; --turns) {
            loop_.runOnce();
            char buffer[65536];
            received_.append(buffer, socket_.read_some(boost::asio::buffer(buffer), error_));
        }
        std::string const result = received_.substr(0, size);
        received_.erase(0, size);
        return result;
    }
    std::string receiveAll() {
        std::string const all = receive(std::string::npos);
        EXPECT_EQ(error_, boost::asio::error::eof);
        return all;
    }
    std::string receiveBulk() {
        std::string size;
        while (!size.ends_with("\r\n"))
            size += receive(1);
        return receive(std::stoul(size.substr(1)) + 2);
    }
    void expect(std::string_view request, std::string_view reply) {
        SCOPED_TRACE(std::string(request.substr(0, 60)));
        send(request);
        EXPECT_EQ(receive(reply.size()), reply);
    }
    void expectAll(Exchanges exchanges) {
        for (auto const& [request, reply] : exchanges)
            expect(request + "\r\n", reply + "\r\n");
    }
    void expectNothing() {
        EXPECT_EQ(receive(1, 50), "");
        EXPECT_NE(error_, boost::asio::error::eof);
    }

  private:
    Kel::EventLoop& loop_;
    boost::asio::io_context ownContext_;
    tcp::socket socket_{ownContext_};
    std::string received_;
    boost::system::error_code error_;
};

struct DaemonTest : testing::Test {
    void TearDown() override {
        daemon.reset();
        loop->runOnce();
    }
    void fill(int keys) {
        for (int i = 0; i < keys; ++i)
            daemon->store().set("key" + std::to_string(i), "value");
    }
    Mox::U32 runnableWalks() const { return daemon->background()->runnableTaskCount(Kel::TaskPriority::low); }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    tcp::endpoint const anyPort{boost::asio::ip::address_v4::loopback(), 0};
    std::unique_ptr<Daemon> daemon = std::make_unique<Daemon>(loop, 0, 0, anyPort);
    Client client{*loop, daemon->clients()};
};

} // namespace

TEST_F(DaemonTest, Answers) {
    client.expectAll({
        {"PING\r\nping hello\r\nECHO x", "+PONG\r\n$5\r\nhello\r\n$1\r\nx"},
        {"*3\r\n$3\r\nSET\r\n$1\r\na\r\n$4\r\n1\r\n2\r\nGET a", "+OK\r\n$4\r\n1\r\n2"},
        {"INCR a", "-ERR the value is no integer"},
        {"INCR n\r\nINCR n", ":1\r\n:2"},
        {"SET n 9223372036854775807\r\nINCR n", "+OK\r\n-ERR the value is at its maximum"},
        {"MSET a 1 b", "-ERR a key without a value"},
        {"MSET a 1 b 2\r\nMGET a c b", "+OK\r\n*3\r\n$1\r\n1\r\n$-1\r\n$1\r\n2"},
        {"EXISTS a c b a\r\nDEL n b c\r\nDBSIZE", ":3\r\n:2\r\n:1"},
        {"KEYS *\r\nKEYS b*\r\nDBSIZE EXACT", "*1\r\n$1\r\na\r\n*0\r\n:1"},
        {"TTL a\r\nTTL c\r\nEXPIRE c 10", ":-1\r\n:-2\r\n:0"},
        {"EXPIRE a 10\r\nPERSIST a\r\nPERSIST a", ":1\r\n:1\r\n:0"},
        {"EXPIRE a x", "-ERR the time to live is no integer"},
        {"SET a 1 EX 0", "-ERR the time to live is not positive"},
        {"SET a 1 NX", "-ERR syntax error"},
        {"SET a 1 PX 2000\r\nTTL a", "+OK\r\n:2"},
        {"PEXPIRE a -1\r\nGET a\r\nFLUSHALL", ":1\r\n$-1\r\n+OK"},
        {"CONFIG GET save\r\nCONFIG GET x", "*2\r\n$4\r\nsave\r\n$0\r\n\r\n*0"},
        {"CLIENT SETINFO LIB-NAME x\r\nCOMMAND DOCS", "+OK\r\n*0"},
        {"GET", "-ERR wrong number of arguments for 'GET'"},
        {"NOSUCH x", "-ERR unknown command 'NOSUCH'"},
        {"SCHED RESET", "-ERR SCHED is for the operator's port"},
    });
    client.send("INFO\r\nQUIT\r\nPING\r\n");
    EXPECT_THAT(client.receiveAll(), AllOf(HasSubstr("# Server\r\n"), HasSubstr("connected_clients:1\r\n"),
                                           HasSubstr("keys:0\r\n"), HasSubstr("TotalRunCount"),
                                           EndsWith("\r\n+OK\r\n"))); // and nothing after QUIT
    EXPECT_EQ(daemon->clients().connections(), 0u);
}

TEST_F(DaemonTest, PipelinedRequestsAreAnsweredInOrderAroundWalksThoughTheClientSendsNoMore) {
    fill(20000);
    Client other(*loop, daemon->clients());
    client.send("PING\r\nKEYS key1999?\r\nDBSIZE EXACT\r\nECHO end\r\nhalf a reque");
    client.sendNoMore();
    other.expect("PING\r\n", "+PONG\r\n");
    EXPECT_THAT(client.receiveAll(),
                AllOf(StartsWith("+PONG\r\n*10\r\n$8\r\nkey1999"), EndsWith("\r\n:20000\r\n$3\r\nend\r\n")));
    EXPECT_EQ(daemon->root()->deadTaskStats("dbsize"), nullptr);
    ASSERT_NE(daemon->background()->deadTaskStats("dbsize"), nullptr) << "walks are the group's tasks";
    EXPECT_EQ(daemon->background()->deadTaskStats("dbsize")->taskWorkCount(), 20000u);
    std::string const report = daemon->statistics();
    std::size_t const ofGroup = report.find("\nTaskGroup;background\nPriority ");
    EXPECT_THAT(report.substr(0, ofGroup),
                AllOf(HasSubstr("\nTaskGroup;background "), Not(HasSubstr("\nkeys "))));
    EXPECT_THAT(report.substr(ofGroup), HasSubstr("\nkeys "));
}

TEST_F(DaemonTest, GetsAreAnsweredWhileWalksRunAndWalksMayBeUnderWayAtTheEnd) {
    fill(300000);
    Client second(*loop, daemon->clients()), other(*loop, daemon->clients());
    client.send("KEYS *\r\n");
    second.send("KEYS *\r\n");
    for (int i = 0; i < 10; ++i)
        other.expect("GET key7\r\n", "$5\r\nvalue\r\n");
    ASSERT_EQ(runnableWalks(), 2u) << "the GETs waited for a walk";
    EXPECT_EQ(client.receive(9), "*300000\r\n");
    second.send("DBSIZE EXACT\r\n");
    Mox::Ptr<Kel::TaskGroup> const group = daemon->background();
    daemon.reset();
    client.receiveAll();
    second.receiveAll();
    EXPECT_EQ(group->references(), 1u) << "a walk still holds it";
}

TEST_F(DaemonTest, MalformedRequestClosesItsConnectionOnly) {
    Client half(*loop, daemon->clients());
    half.send("*2\r\n$3\r\nGET\r\n$5\r\nab");
    client.send("PING\r\n*1\r\n$2000000\r\n");
    EXPECT_EQ(client.receiveAll(), "+PONG\r\n-ERR Protocol error: the request is too large\r\n");
    half.expect("cde\r\n", "$-1\r\n");
}

TEST_F(DaemonTest, ClientThatGoesAwayInMidReplyTakesItsWalkAlong) {
    fill(300000); // more than the sockets hold
    client.expect("KEYS *\r\n", "*300000\r\n");
    client.close();
    Client other(*loop, daemon->clients());
    for (int i = 0; i < 20; ++i)
        other.expect("PING\r\n", "+PONG\r\n");
    EXPECT_EQ(daemon->clients().connections(), 1u);
    EXPECT_NE(daemon->background()->deadTaskStats("keys"), nullptr);
}

TEST_F(DaemonTest, ClientThatDoesNotReadIsNotReadFrom) {
    daemon->store().set("big", std::string(500000, 'v'));
    std::size_t const replies = 100 * (9 + 500000 + 2);
    std::string gets, ping = "PING " + std::string(60000, 'p') + "\r\n";
    for (int i = 0; i < 100; ++i)
        gets += "GET big\r\n";
    client.send(gets);
    Client(*loop, daemon->clients()).expect("PING\r\n", "+PONG\r\n");
    int sent = 0;
    while (sent < 1000 && client.sendSome(ping, 100) == ping.size())
        ++sent;
    EXPECT_LT(sent, 500); // 30 MB, where the limit and the sockets' buffers hold far less
    EXPECT_EQ(client.receive(replies).size(), replies);
    EXPECT_EQ(client.receiveBulk(), ping.substr(5));
}

TEST_F(DaemonTest, OperatorIsAnsweredWhileTheSchedulerIsSuspended) {
    client.expect("PING\r\n", "+PONG\r\n");
    Client op(*loop, daemon->operators()), other(*loop, daemon->operators()),
        silent(*loop, daemon->operators());
    op.expect("ECHO x\r\nSCHED RESET\r\n", "$1\r\nx\r\n+OK\r\n");
    op.expect("SCHED SET kelkv/suspended True\r\n", "+OK\r\n");
    op.send("SCHED HISTORY\r\n");
    EXPECT_THAT(op.receiveBulk(), AllOf(HasSubstr("schedulerSuspended"), HasSubstr("operator")));
    op.send("SCHED TRACE\r\n");
    EXPECT_THAT(TestSupport::python("export/check_trace.py", op.receiveBulk()),
                Contains(HasSubstr(" kelkv normal: \"client\" for ")));

    op.expectAll({{"*2\r\n$7\r\nCOMMAND\r\n$4\r\nDOCS", "*0"},
                  {"CLIENT SETINFO LIB-NAME x\r\n\r\nHELLO 3", "+OK\r\n-ERR unknown command 'HELLO'"}});
    other.send("PING\r\nQUIT\r\n");
    EXPECT_EQ(other.receiveAll(), "+PONG\r\n+OK\r\n");
    silent.sendNoMore();
    EXPECT_EQ(silent.receiveAll(), "");
    EXPECT_EQ(daemon->operators().connections(), 1u);
    op.send("ECHO waits\r\n");
    client.send("PING\r\n");
    op.expectNothing();
    client.expectNothing();
    daemon->root()->suspendedIs(false);
    EXPECT_EQ(op.receive(11), "$5\r\nwaits\r\n");
    EXPECT_EQ(client.receive(7), "+PONG\r\n");
}

TEST_F(DaemonTest, OperatorSteersTheTree) {
    Client op(*loop, daemon->operators());
    std::string const key = Kel::TaskKey(reinterpret_cast<std::uintptr_t>(daemon->root().ptr())).toStrep();
    client.expect("PING\r\n", "+PONG\r\n");
    op.expectAll({
        {"SCHED SET kelkv/client/taskQuantum 0.005", "+OK"},
        {"SCHED GET kelkv/client/taskQuantum", "$5\r\n0.005"},
        {"sched call kelkv/client resetStats", "+OK"},
        {"SCHED CALL kelkv/client taskRunInc -1",
         "-ERR Kel::Task::taskRunInc: '-1' is no Mox::U32: expected a number"},
        {"SCHED GET kelkv/tasksPerPriority/'high'", "$1\r\n1"},
        {"SCHED SET kelkv/tasksRegistered", "-ERR wrong number of arguments for 'SCHED SET'"},
        {"SCHED LS nowhere", "-ERR no root 'nowhere', it is 'kelkv' " + key},
        // A command may have the connection's own task run.
        {"SCHED CALL kelkv/operator taskRunFromTest\r\nSCHED SET kelkv/operator/taskRun 77\r\nPING",
         "+OK\r\n+OK\r\n+PONG"},
    });
}

struct HttpTest : DaemonTest {
    /// What the daemon answers before it closes its side.
    std::string ask(std::string_view request) {
        Client browser(*loop, *daemon->http());
        browser.send(request);
        return browser.receiveAll();
    }
    std::string body(std::string_view path) {
        std::string const answer =
            ask("GET " + std::string(path) + " HTTP/1.1\r\nHost: localhost:80\r\n\r\n");
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
        return answer.substr(answer.find("\r\n\r\n") + 4);
    }
};

TEST_F(HttpTest, ServesThePageTheTraceAndTheMetrics) {
    EXPECT_THAT(body("/"), AllOf(StartsWith("<!doctype html>"), // which needs nothing from outside
                                 Not(testing::ContainsRegex("(src|href)=|https?:"))));
    EXPECT_THAT(TestSupport::python("export/check_trace.py", body("/trace.json?x")),
                Contains(HasSubstr(" kelkv normal: \"http\" for ")));
    EXPECT_THAT(TestSupport::python("export/check_metrics.py", body("/metrics")),
                Contains("dead_tasks_total kelkv normal = 2"));
}

TEST_F(HttpTest, ServesNothingButGet) {
    for (std::string const method : {"POST", "HEAD", "NONSENSE"})
        EXPECT_THAT(
            ask(method + " /metrics HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"),
            AllOf(StartsWith("HTTP/1.1 405 "), HasSubstr("Allow: GET\r\n"), Not(HasSubstr("keltask"))));
    EXPECT_THAT(ask("GET /etc/passwd HTTP/1.0\r\n\r\n"), StartsWith("HTTP/1.1 404 "));
    for (std::string const junk : {"junk\r\n\r\n", "GET / HTTP/1.1\r\nX: "})
        EXPECT_THAT(ask(junk + std::string(100000, 'x')), StartsWith("HTTP/1.1 400 "));
    EXPECT_TRUE(ask("HEAD / HTTP/1.0\r\n\r\n").ends_with("\r\n\r\n"));
    EXPECT_TRUE(daemon->http()->endpoint().address().is_loopback());
}

TEST_F(HttpTest, OnLoopbackARequestNamesThisHost) {
    for (char const* host : {"localhost", "LOCALHOST:80", "127.0.0.1:80", "[::1]:80"})
        EXPECT_THAT(ask("GET / HTTP/1.1\r\nHost: " + std::string(host) + "\r\n\r\n"),
                    StartsWith("HTTP/1.1 200 "));
    EXPECT_THAT(ask("GET / HTTP/1.1\r\nHost: elsewhere.example\r\n\r\n"), StartsWith("HTTP/1.1 421 "));
    EXPECT_THAT(ask("GET / HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 400 "));
}

TEST_F(HttpTest, AnswersOnceWhoeverRunsItsTaskAndWhileSuspended) {
    Client op(*loop, daemon->operators()), browser(*loop, *daemon->http());
    browser.send("GET /metrics HTTP/1.0\r\n");
    op.expect("SCHED CALL kelkv/http scheduleTask\r\n", "+OK\r\n");
    op.expect("SCHED SET kelkv/suspended True\r\n", "+OK\r\n");
    browser.send("\r\n");
    EXPECT_THAT(browser.receiveAll(), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("keltask_")));
}

TEST_F(HttpTest, ClientsThatGoAwayOrStayAtTheEndOfTheDaemonLeaveNothing) {
    Client gone(*loop, *daemon->http()), half(*loop, *daemon->http());
    gone.send("GET /trace.json HTTP/1.0\r\n\r\n");
    gone.close();
    half.send("GET / HT");
    EXPECT_THAT(body("/metrics"), HasSubstr("keltask_"));
    daemon.reset();
    EXPECT_EQ(half.receiveAll(), "");
}

} // namespace KelKv
