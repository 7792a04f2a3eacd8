#include <kelkv/Daemon.h>

#include <support/Python.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace KelKv {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::size_t constexpr turnsMax = 200000;

/// A client by a socket of the system, in the daemon's own thread: it turns the daemon's loop while it waits.
class Client {
  public:
    Client(Kel::EventLoop& loop, auto const& port) : loop_(loop), socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port.number());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { close(); }
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    void close() {
        if (socket_ >= 0)
            ::close(socket_);
        socket_ = -1;
    }
    void sendNoMore() const { ::shutdown(socket_, SHUT_WR); }

    /// As much as the daemon takes within so many turns.
    std::size_t sendSome(std::string_view bytes, std::size_t turns) {
        std::size_t sent = 0;
        for (std::size_t turn = 0; turn < turns && sent < bytes.size(); ++turn) {
            auto const size =
                ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            sent += size > 0 ? static_cast<std::size_t>(size) : 0;
            loop_.runOnce();
        }
        return sent;
    }
    void send(std::string_view bytes) { EXPECT_EQ(sendSome(bytes, turnsMax), bytes.size()); }

    /// What comes until there are so many bytes, or until the daemon closes.
    std::string receive(std::size_t size) {
        for (std::size_t turn = 0; turn < turnsMax && received_.size() < size && !atEnd_; ++turn) {
            loop_.runOnce();
            takeIn();
        }
        std::string const result = received_.substr(0, size);
        received_.erase(0, size);
        return result;
    }
    std::string receiveAll() {
        std::string const all = receive(std::string::npos);
        EXPECT_TRUE(atEnd_);
        return all;
    }
    void expect(std::string_view request, std::string_view reply) {
        SCOPED_TRACE(std::string(request.substr(0, 60)));
        send(request);
        EXPECT_EQ(receive(reply.size()), reply);
    }
    /// Whether nothing comes.
    bool waits(int turns) {
        for (int i = 0; i < turns; ++i)
            loop_.runOnce();
        takeIn();
        return received_.empty() && !atEnd_;
    }

  private:
    void takeIn() {
        char buffer[65536];
        auto const size = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT);
        if (size > 0)
            received_.append(buffer, static_cast<std::size_t>(size));
        atEnd_ = size == 0;
    }

    Kel::EventLoop& loop_;
    int socket_;
    std::string received_;
    bool atEnd_ = false;
};

std::string bulk(std::string_view text) {
    return "$" + std::to_string(text.size()) + "\r\n" + std::string(text) + "\r\n";
}

class DaemonTest : public testing::Test {
  protected:
    void TearDown() override {
        daemon.reset();
        loop->runOnce();
    }
    void fill(int keys) {
        for (int i = 0; i < keys; ++i)
            daemon->store().set("key" + std::to_string(i), "value");
    }
    Mox::U32 runnableWalks() const {
        return daemon->background()->runnableTaskCount(Kel::TaskPriority(Kel::TaskPriority::low));
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    std::unique_ptr<Daemon> daemon = std::make_unique<Daemon>(loop, 0, 0);
    Client client{*loop, daemon->clients()};
};

} // namespace

TEST_F(DaemonTest, Answers) {
    struct Case {
        char const* request;
        char const* reply;
    };
    for (Case const& c : {
             Case{"PING\r\n", "+PONG\r\n"},
             Case{"ping hello\r\n", "$5\r\nhello\r\n"},
             Case{"ECHO x\r\n", "$1\r\nx\r\n"},
             Case{"GET a\r\n", "$-1\r\n"},
             Case{"*3\r\n$3\r\nSET\r\n$1\r\na\r\n$4\r\n1\r\n2\r\n", "+OK\r\n"},
             Case{"GET a\r\n", "$4\r\n1\r\n2\r\n"},
             Case{"INCR a\r\n", "-ERR the value is no integer\r\n"},
             Case{"INCR n\r\n", ":1\r\n"},
             Case{"INCR n\r\n", ":2\r\n"},
             Case{"SET n 9223372036854775807\r\n", "+OK\r\n"},
             Case{"INCR n\r\n", "-ERR the value is at its maximum\r\n"},
             Case{"MSET a 1 b\r\n", "-ERR a key without a value\r\n"},
             Case{"MSET a 1 b 2\r\n", "+OK\r\n"},
             Case{"MGET a c b\r\n", "*3\r\n$1\r\n1\r\n$-1\r\n$1\r\n2\r\n"},
             Case{"EXISTS a c b a\r\n", ":3\r\n"},
             Case{"DEL n b c\r\n", ":2\r\n"},
             Case{"DBSIZE\r\n", ":1\r\n"},
             Case{"DBSIZE EXACT\r\n", ":1\r\n"},
             Case{"KEYS *\r\n", "*1\r\n$1\r\na\r\n"},
             Case{"KEYS b*\r\n", "*0\r\n"},
             Case{"TTL a\r\n", ":-1\r\n"},
             Case{"TTL c\r\n", ":-2\r\n"},
             Case{"EXPIRE c 10\r\n", ":0\r\n"},
             Case{"EXPIRE a 10\r\n", ":1\r\n"},
             Case{"PERSIST a\r\n", ":1\r\n"},
             Case{"PERSIST a\r\n", ":0\r\n"},
             Case{"EXPIRE a x\r\n", "-ERR the time to live is no integer\r\n"},
             Case{"SET a 1 EX 0\r\n", "-ERR the time to live is not positive\r\n"},
             Case{"SET a 1 NX\r\n", "-ERR syntax error\r\n"},
             Case{"PEXPIRE a -1\r\n", ":1\r\n"},
             Case{"GET a\r\n", "$-1\r\n"},
             Case{"FLUSHALL\r\n", "+OK\r\n"},
             Case{"CONFIG GET save\r\n", "*2\r\n$4\r\nsave\r\n$0\r\n\r\n"},
             Case{"CONFIG GET x\r\n", "*0\r\n"},
             Case{"CLIENT SETINFO LIB-NAME x\r\n", "+OK\r\n"},
             Case{"COMMAND DOCS\r\n", "*0\r\n"},
             Case{"GET\r\n", "-ERR wrong number of arguments for 'GET'\r\n"},
             Case{"NOSUCH x\r\n", "-ERR unknown command 'NOSUCH'\r\n"},
             Case{"SCHED RESET\r\n", "-ERR SCHED is for the operator's port\r\n"},
         })
        client.expect(c.request, c.reply);
    client.send("INFO\r\nQUIT\r\nPING\r\n");
    std::string const rest = client.receiveAll();
    for (char const* part : {"# Server\r\n", "connected_clients:1\r\n", "keys:0\r\n", "TotalRunCount"})
        EXPECT_THAT(rest, HasSubstr(part));
    EXPECT_TRUE(rest.ends_with("\r\n+OK\r\n")) << "nothing is answered after QUIT";
    EXPECT_EQ(daemon->clients().connections(), 0u);
}

TEST_F(DaemonTest, KeyExpires) {
    client.expect("SET a 1 PX 2000\r\nTTL a\r\n", "+OK\r\n:2\r\n");
    time.clock->nowIs(1.89);
    client.expect("GET a\r\n", "$1\r\n1\r\n");
    time.clock->nowIs(2.0);
    client.expect("GET a\r\nTTL a\r\n", "$-1\r\n:-2\r\n");
}

TEST_F(DaemonTest, PipelinedRepliesComeInOrderAroundAWalk) {
    fill(20000);
    Client other(*loop, daemon->clients());
    client.send("PING\r\nKEYS key1999?\r\nDBSIZE EXACT\r\nECHO end\r\nQUIT\r\n");
    other.expect("PING\r\n", "+PONG\r\n");
    std::string const reply = client.receiveAll();
    EXPECT_THAT(reply, StartsWith("+PONG\r\n*10\r\n$8\r\nkey1999"));
    EXPECT_TRUE(reply.ends_with("\r\n:20000\r\n$3\r\nend\r\n+OK\r\n"));
}

TEST_F(DaemonTest, WalksAreOneTaskToTheOthersAndHaveTheirOwnStatistics) {
    fill(20000);
    client.expect("DBSIZE EXACT\r\n", ":20000\r\n");
    client.expect("KEYS x\r\nPING\r\n", "*0\r\n+PONG\r\n");
    for (char const* walk : {"dbsize", "keys"}) {
        SCOPED_TRACE(walk);
        EXPECT_EQ(daemon->root()->deadTaskStats(walk), nullptr);
        Kel::TaskStat const* const stat = daemon->background()->deadTaskStats(walk);
        ASSERT_NE(stat, nullptr);
        EXPECT_EQ(stat->taskWorkCount(), 20000u);
    }
    std::string const report = daemon->statistics();
    std::size_t const ofGroup = report.find("\nTaskGroup;background\nPriority ");
    ASSERT_NE(ofGroup, std::string::npos);
    EXPECT_THAT(report.substr(0, ofGroup),
                AllOf(HasSubstr("\nTaskGroup;background "), Not(HasSubstr("\nkeys "))));
    EXPECT_THAT(report.substr(ofGroup), AllOf(HasSubstr("\nkeys "), HasSubstr("\ndbsize ")));
}

TEST_F(DaemonTest, GetsAreAnsweredWhileWalksRun) {
    fill(300000);
    client.send("KEYS *\r\n");
    Client second(*loop, daemon->clients());
    second.send("KEYS *\r\n");
    Client other(*loop, daemon->clients());
    for (int i = 0; i < 10; ++i)
        other.expect("GET key7\r\n", "$5\r\nvalue\r\n");
    EXPECT_EQ(runnableWalks(), 2u) << "the GETs waited for a walk";
    EXPECT_EQ(client.receive(9), "*300000\r\n");
    EXPECT_EQ(second.receive(9), "*300000\r\n");
}

TEST_F(DaemonTest, EndsWithWalksUnderWay) {
    fill(300000);
    client.send("KEYS *\r\n");
    Client second(*loop, daemon->clients());
    second.send("DBSIZE EXACT\r\n");
    for (int turn = 0; turn < 100 && runnableWalks() < 2; ++turn)
        loop->runOnce();
    ASSERT_EQ(runnableWalks(), 2u);
    Mox::Ptr<Kel::TaskGroup> const group = daemon->background();
    daemon.reset();
    EXPECT_EQ(client.receiveAll(), "");
    EXPECT_EQ(second.receiveAll(), "");
    EXPECT_EQ(group->references(), 1u) << "a walk still holds it";
}

TEST_F(DaemonTest, AnswersWhatCameBeforeTheClientsEnd) {
    fill(10000);
    client.send("KEYS *\r\nPING\r\nhalf a reque");
    client.sendNoMore();
    std::string const reply = client.receiveAll();
    EXPECT_THAT(reply, StartsWith("*10000\r\n"));
    EXPECT_TRUE(reply.ends_with("+PONG\r\n"));
}

TEST_F(DaemonTest, MalformedRequestClosesItsConnectionOnly) {
    Client half(*loop, daemon->clients());
    half.send("*2\r\n$3\r\nGET\r\n$5\r\nab");
    client.send("PING\r\n*1\r\n$2000000\r\n");
    EXPECT_EQ(client.receiveAll(), "+PONG\r\n-ERR Protocol error: the request is too large\r\n");
    half.expect("cde\r\n", "$-1\r\n");
    Client fresh(*loop, daemon->clients());
    fresh.expect("PING\r\n", "+PONG\r\n");
}

TEST_F(DaemonTest, ClientThatGoesAwayInMidReplyTakesItsWalkAlong) {
    fill(300000); // more than the sockets hold
    client.send("KEYS *\r\n");
    EXPECT_EQ(client.receive(9), "*300000\r\n");
    client.close();
    Client other(*loop, daemon->clients());
    for (int i = 0; i < 20; ++i)
        other.expect("PING\r\n", "+PONG\r\n");
    EXPECT_EQ(daemon->clients().connections(), 1u);
    EXPECT_NE(daemon->background()->deadTaskStats("keys"), nullptr);
}

TEST_F(DaemonTest, ClientThatDoesNotReadIsNotReadFrom) {
    std::string const value(500000, 'v');
    daemon->store().set("big", value);
    constexpr std::size_t requests = 100;
    std::string gets;
    for (std::size_t i = 0; i < requests; ++i)
        gets += "GET big\r\n";
    client.send(gets);
    Client other(*loop, daemon->clients());
    other.expect("PING\r\n", "+PONG\r\n");

    std::string const pings = "PING " + std::string(60000, 'p') + "\r\n";
    std::size_t sent = 0;
    while (sent < 1000 && client.sendSome(pings, 100) == pings.size())
        ++sent;
    EXPECT_LT(sent, 500u); // 30 MB, where the limit and the sockets' buffers hold far less
    EXPECT_EQ(client.receive(requests * bulk(value).size()).size(), requests * bulk(value).size());
    EXPECT_EQ(client.receive(bulk(pings.substr(5, 60000)).size()), bulk(pings.substr(5, 60000)));
}

TEST_F(DaemonTest, OperatorIsAnsweredWhileTheSchedulerIsSuspended) {
    Client op(*loop, daemon->operators());
    op.expect("ECHO x\r\nSCHED RESET\r\n", "$1\r\nx\r\n+OK\r\n");
    daemon->root()->suspendedIs(true);
    op.send("SCHED HISTORY\r\n");
    std::string const size = op.receive(6); // four digits
    std::string const history = op.receive(std::stoul(size.substr(1)) + 3);
    EXPECT_THAT(history, HasSubstr("schedulerSuspended"));
    EXPECT_THAT(history, HasSubstr("operator"));

    client.send("PING\r\n");
    EXPECT_TRUE(client.waits(50));
    daemon->root()->suspendedIs(false);
    EXPECT_EQ(client.receive(7), "+PONG\r\n");
}

TEST_F(DaemonTest, InteractiveSessionOfTheOperatorBeginsAndEndsWhileTheSchedulerIsSuspended) {
    daemon->root()->suspendedIs(true);
    Client op(*loop, daemon->operators());
    op.expect("*2\r\n$7\r\nCOMMAND\r\n$4\r\nDOCS\r\n", "*0\r\n");
    op.expect("CLIENT SETINFO LIB-NAME x\r\n\r\nHELLO 3\r\n", "+OK\r\n-ERR unknown command 'HELLO'\r\n");
    op.send("ECHO waits\r\n");
    EXPECT_TRUE(op.waits(50));
    Client other(*loop, daemon->operators());
    other.send("PING\r\nQUIT\r\n");
    EXPECT_EQ(other.receiveAll(), "+PONG\r\n+OK\r\n");
    Client silent(*loop, daemon->operators());
    silent.sendNoMore();
    EXPECT_EQ(silent.receiveAll(), "");
    EXPECT_EQ(daemon->operators().connections(), 1u);
    daemon->root()->suspendedIs(false);
    EXPECT_EQ(op.receive(11), "$5\r\nwaits\r\n");
}

TEST_F(DaemonTest, OperatorSteersTheTree) {
    Client op(*loop, daemon->operators());
    client.expect("PING\r\n", "+PONG\r\n");
    auto* const root = daemon->root().ptr();
    std::string const key = Kel::TaskKey(reinterpret_cast<std::uintptr_t>(root)).toStrep();
    for (auto const& [request, reply] : std::initializer_list<std::pair<std::string, std::string>>{
             {"SCHED GET kelkv/suspended\r\n", "$5\r\nFalse\r\n"},
             {"SCHED SET kelkv/client/taskQuantum 0.005\r\n", "+OK\r\n"},
             {"SCHED GET kelkv/client/taskQuantum\r\n", "$5\r\n0.005\r\n"},
             {"sched call kelkv/client resetStats\r\n", "+OK\r\n"},
             {"SCHED CALL kelkv/client taskRunInc -1\r\n",
              "-ERR Kel::Task::taskRunInc: '-1' is no Mox::U32: expected a number\r\n"},
             {"SCHED GET kelkv/tasksPerPriority/'high'\r\n", "$1\r\n1\r\n"},
             {"SCHED SET kelkv/tasksRegistered\r\n", "-ERR wrong number of arguments for 'SCHED SET'\r\n"},
             {"SCHED LS nowhere\r\n", "-ERR no root 'nowhere', it is 'kelkv' " + key + "\r\n"},
             {"SCHED GET " + key + "/suspended\r\n", "$5\r\nFalse\r\n"},
             {"SCHED SET kelkv/suspended True\r\n", "+OK\r\n"},
         })
        op.expect(request, reply);
    client.send("PING\r\n");
    EXPECT_TRUE(client.waits(50));
    op.expect("SCHED SET kelkv/suspended False\r\n", "+OK\r\n");
    EXPECT_EQ(client.receive(7), "+PONG\r\n");
}

TEST_F(DaemonTest, OperatorTakesATraceWhileSuspended) {
    Client op(*loop, daemon->operators());
    client.expect("PING\r\n", "+PONG\r\n");
    daemon->root()->suspendedIs(true);
    op.send("SCHED TRACE\r\n");
    std::string size;
    while (!size.ends_with("\r\n"))
        size += op.receive(1);
    auto const lines = TestSupport::python("export/check_trace.py", op.receive(std::stoul(size.substr(1))));
    EXPECT_THAT(lines, testing::Contains(HasSubstr(" kelkv normal: \"client\" for ")));
}

class HttpTest : public DaemonTest {
  protected:
    HttpTest() {
        boost::asio::ip::tcp::endpoint const anyPort(boost::asio::ip::address_v4::loopback(), 0);
        daemon = std::make_unique<Daemon>(loop, 0, 0, anyPort);
    }
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
    EXPECT_THAT(body("/"), StartsWith("<!doctype html>"));
    EXPECT_THAT(body("/"), Not(testing::ContainsRegex("(src|href)=|https?:")))
        << "needs nothing from outside";
    EXPECT_THAT(TestSupport::python("export/check_trace.py", body("/trace.json?x")),
                testing::Contains(HasSubstr(" kelkv normal: \"http\" for ")));
    EXPECT_THAT(TestSupport::python("export/check_metrics.py", body("/metrics")),
                testing::Contains("dead_tasks_total kelkv normal = 3"));
}

TEST_F(HttpTest, ServesNothingButGet) {
    for (char const* method : {"POST", "PUT", "DELETE", "HEAD", "OPTIONS", "NONSENSE"})
        EXPECT_THAT(
            ask(std::string(method) + " /metrics HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"),
            AllOf(StartsWith("HTTP/1.1 405 "), HasSubstr("Allow: GET\r\n"), Not(HasSubstr("keltask"))));
    EXPECT_THAT(ask("GET /etc/passwd HTTP/1.0\r\n\r\n"), StartsWith("HTTP/1.1 404 "));
    EXPECT_THAT(ask("junk\r\n\r\n"), StartsWith("HTTP/1.1 400 "));
    EXPECT_THAT(ask("GET / HTTP/1.1\r\nX: " + std::string(100000, 'x')), StartsWith("HTTP/1.1 400 "));
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

TEST_F(DaemonTest, OperatorHasItsOwnTaskRunInTheMiddleOfItsCommand) {
    Client op(*loop, daemon->operators());
    op.expect("SCHED CALL kelkv/operator taskRunFromTest\r\nPING\r\n"
              "SCHED CALL kelkv/operator taskRunFromTest\r\nSCHED SET kelkv/operator/taskRun 77\r\nPING\r\n",
              "+OK\r\n+PONG\r\n+OK\r\n+OK\r\n+PONG\r\n");
}

} // namespace KelKv
