#include <kelkv/Daemon.h>
#include <kelkv/RespConnection.h>

#include <support/Python.h>
#include <support/TraceLog.h>
#include <support/VirtualTime.h>

#include <gmock/gmock.h>

#include <deque>

namespace KelKv {

namespace {

using namespace testing;
using boost::asio::ip::tcp;

constexpr int turnsMax = 200000;

/// A client in the daemon's own thread: it turns the daemon's loop while it waits.
struct Client {
    Client(Kel::EventLoop& ofAll, Listener const& listener) : loop(ofAll) {
        socket.connect({boost::asio::ip::address_v4::loopback(), listener.number()});
        socket.non_blocking(true);
    }

    /// As much as the daemon takes within so many turns.
    std::size_t send(std::string_view bytes, int turns = turnsMax) {
        std::size_t sent = 0;
        for (; turns > 0 && sent < bytes.size(); --turns) {
            sent += socket.write_some(boost::asio::buffer(bytes.substr(sent)), error);
            loop.runOnce();
        }
        return sent;
    }
    void sendNoMore() { socket.shutdown(tcp::socket::shutdown_send); }
    /// What comes until there are so many bytes, until the daemon closes, or within so many turns.
    std::string receive(std::size_t size, int turns = turnsMax) {
        for (; turns > 0 && received.size() < size && error != boost::asio::error::eof; --turns) {
            loop.runOnce();
            char buffer[65536];
            received.append(buffer, socket.read_some(boost::asio::buffer(buffer), error));
        }
        std::string const result = received.substr(0, size);
        received.erase(0, size);
        return result;
    }
    std::string receiveAll() {
        std::string const all = receive(std::string::npos);
        EXPECT_EQ(error, boost::asio::error::eof);
        return all;
    }
    std::string askAll(std::string_view request) {
        send(request);
        return receiveAll();
    }
    std::string askBulk(std::string_view request) {
        send(request);
        std::string size = receive(1);
        for (; !size.ends_with("\r\n"); size += receive(1)) {
        }
        return receive(std::stoul(size.substr(1)) + 2);
    }
    void expect(std::string_view request, std::string_view reply) {
        send(request);
        EXPECT_EQ(receive(reply.size()), reply) << request.substr(0, 60);
    }
    void expectNothing() {
        EXPECT_EQ(receive(1, 50), "");
        EXPECT_NE(error, boost::asio::error::eof);
    }

    Kel::EventLoop& loop;
    boost::asio::io_context ownContext;
    tcp::socket socket{ownContext};
    std::string received;
    boost::system::error_code error;
};

struct DaemonTest : Test {
    void TearDown() override {
        daemon.reset();
        loop->runOnce();
    }
    /// Returns the size of a reply with all keys.
    std::size_t fill(std::size_t keys) {
        std::string reply;
        ReplyWriter(reply).array(keys);
        for (std::size_t i = 0; i < keys; ++i) {
            std::string const key = "key" + std::to_string(i);
            engine().store.set(key, "value");
            ReplyWriter(reply).bulk(key);
        }
        return reply.size();
    }
    Engine& engine() { return daemon->engine(); }
    Client operatorClient() { return Client(*loop, daemon->operators()); }
    /// What an HTTP server answers before it closes its side.
    std::string ask(std::string_view request, Listener const* http = nullptr) {
        return Client(*loop, http ? *http : *daemon->http()).askAll(request);
    }
    std::string body(std::string const& path) {
        std::string const answer = ask("GET " + path + " HTTP/1.1\r\nHost: localhost:80\r\n\r\n");
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
        return answer.substr(answer.find("\r\n\r\n") + 4);
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    tcp::endpoint const anyPort{boost::asio::ip::address_v4::loopback(), 0};
    std::unique_ptr<Daemon> daemon = std::make_unique<Daemon>(loop, 0, 0, anyPort);
    Client client{*loop, daemon->clients()};
};
using HttpTest = DaemonTest;

struct FailingConnection final : RespConnection {
    using RespConnection::RespConnection;
    void onTaskRun() override { throw std::runtime_error("no answer"); }
};

} // namespace

TEST_F(DaemonTest, PipelinedRequestsAreAnsweredInOrderAroundWalksThoughTheClientSendsNoMore) {
    fill(20000);
    Client other(*loop, daemon->clients());
    std::string pings, pongs; // more than a quantum's
    for (int i = 0; i < 10000; ++i)
        pings += "PING\r\n", pongs += "+PONG\r\n";
    client.send(pings + "KEYS key1999?\r\nDBSIZE EXACT\r\nECHO end\r\nhalf a reque");
    client.sendNoMore();
    other.expect("INFO clients\r\n",
                 "$55\r\n# Clients\r\nconnected_clients:2\r\nconnected_operators:0\r\n\r\n");
    EXPECT_THAT(client.receiveAll(),
                AllOf(StartsWith(pongs + "*10\r\n$8\r\nkey1999"), EndsWith("\r\n:20000\r\n$3\r\nend\r\n")));
    EXPECT_EQ(engine().root->deadTaskStats("dbsize"), nullptr);
    ASSERT_NE(engine().background->deadTaskStats("dbsize"), nullptr) << "walks are the group's tasks";
    EXPECT_EQ(engine().background->deadTaskStats("dbsize")->taskWorkCount(), 20000u);
    EXPECT_THAT(engine().statistics(),
                ContainsRegex("\nTaskGroup;background (.*\n)*TaskGroup;background\n(.*\n)*keys "));
    EXPECT_EQ(other.askAll("QUIT\r\nPING\r\n"), "+OK\r\n");
    EXPECT_EQ(daemon->clients().connections(), 0u);
}

TEST_F(DaemonTest, GetsAreAnsweredWhileWalksRunAndWalksMayBeUnderWayAtTheEnd) {
    std::size_t const replySize = fill(300000); // more than the sockets hold
    Client second(*loop, daemon->clients()), other(*loop, daemon->clients());
    client.send("KEYS *\r\n");
    second.send("KEYS *\r\n");
    for (int i = 0; i < 10; ++i)
        other.expect("GET key7\r\n", "$5\r\nvalue\r\n");
    EXPECT_EQ(engine().background->runnableTaskCount(Kel::TaskPriority::low), 2u)
        << "of those that are there";
    EXPECT_EQ(client.receive(9), "*300000\r\n");
    client.socket.close();
    for (int i = 0; i < 20; ++i)
        other.expect("PING\r\n", "+PONG\r\n");
    EXPECT_EQ(daemon->clients().connections(), 2u);
    EXPECT_EQ(second.receive(replySize).size(), replySize);
    second.expect("PING\r\n", "+PONG\r\n");
    second.send("DBSIZE EXACT\r\n");
    Mox::Ptr<Kel::TaskGroup> const group = engine().background;
    daemon.reset();
    second.receiveAll();
    EXPECT_EQ(group->references(), 1u) << "a walk still holds it";
}

TEST_F(DaemonTest, WhatIsWrongOrFailsEndsItsConnectionOnly) {
    Client half(*loop, daemon->clients());
    half.send("*2\r\n$3\r\nGET\r\n$5\r\nab");
    EXPECT_EQ(client.askAll("PING\r\n*1\r\n$2000000\r\nPING\r\n"),
              "+PONG\r\n-ERR Protocol error: the request is too large\r\n");
    half.expect("cde\r\n", "$-1\r\n");
    TestSupport::TraceLog trace({0}, "Mox");
    RespConnection::Role const role{"failing", Kel::TaskPriority::normal, false};
    Listener failing(loop->ioContext(), anyPort, 1, [&](tcp::socket socket) {
        return new FailingConnection(engine(), role, std::move(socket));
    });
    EXPECT_EQ(ask("PING\r\n", &failing), "");
    EXPECT_THAT(trace.take(), HasSubstr("no answer"));
    EXPECT_THROW(Daemon(loop, daemon->clients().number(), 0), boost::system::system_error);
}

TEST_F(DaemonTest, ClientThatDoesNotReadIsNotReadFrom) {
    engine().store.set("big", std::string(500000, 'v'));
    std::string gets, ping = "PING " + std::string(60000, 'p') + "\r\n";
    for (int i = 0; i < 100; ++i)
        gets += "GET big\r\n";
    client.send(gets);
    Client(*loop, daemon->clients()).expect("PING\r\n", "+PONG\r\n");
    int sent = 0;
    while (sent < 1000 && client.send(ping, 100) == ping.size())
        ++sent;
    EXPECT_LT(sent, 500); // 30 MB, where the limit and the sockets' buffers hold far less
    std::size_t const replies = 100 * (9 + 500000 + 2);
    EXPECT_EQ(client.receive(replies).size(), replies);
    EXPECT_EQ(client.askBulk(""), ping.substr(5));
}

TEST_F(DaemonTest, OperatorIsAnsweredWhileTheSchedulerIsSuspended) {
    client.expect("PING\r\n", "+PONG\r\n");
    Client op = operatorClient(), other = operatorClient(), silent = operatorClient();
    op.expect("SCHED CALL kelkv/client resetStats\r\nSCHED SET kelkv/suspended True\r\n", "+OK\r\n+OK\r\n");
    EXPECT_THAT(op.askBulk("SCHED HISTORY\r\n"),
                AllOf(HasSubstr("schedulerSuspended"), HasSubstr("run end    N client")));
    EXPECT_THAT(TestSupport::python("export/check_trace.py", op.askBulk("SCHED TRACE\r\n")),
                Contains(HasSubstr(" kelkv normal: \"client\" for ")));
    op.expect("*2\r\n$7\r\nCOMMAND\r\n$4\r\nDOCS\r\nCLIENT SETINFO LIB-NAME x\r\n\r\nHELLO 3\r\n",
              "*0\r\n+OK\r\n-ERR unknown command 'HELLO'\r\n");
    EXPECT_EQ(other.askAll("PING\r\nQUIT\r\nPING\r\n"), "+PONG\r\n+OK\r\n");
    silent.sendNoMore();
    EXPECT_EQ(silent.receiveAll(), "");
    EXPECT_EQ(daemon->operators().connections(), 1u);
    op.send("ECHO waits\r\nPING\r\n");
    client.send("PING\r\n");
    op.expectNothing();
    client.expectNothing();
    engine().root->suspendedIs(false);
    op.expect("", "$5\r\nwaits\r\n+PONG\r\n");
    client.expect("", "+PONG\r\n");
    // A command may have the connection's own task run.
    op.expect("SCHED CALL kelkv/operator taskRunFromTest\r\nSCHED SET kelkv/operator/taskRun 77\r\nPING\r\n",
              "+OK\r\n+OK\r\n+PONG\r\n");
}

TEST_F(DaemonTest, OneConnectionMoreThanAPortHasWaitsForItsPlace) {
    std::deque<Client> ops;
    while (ops.size() < 17)
        ops.emplace_back(*loop, daemon->operators());
    for (std::size_t i = 0; i < 16; ++i)
        ops[i].expect("PING\r\n", "+PONG\r\n");
    ops[16].send("PING\r\n");
    ops[16].expectNothing();
    ops[3].socket.close();
    ops[16].expect("", "+PONG\r\n");
    EXPECT_EQ(daemon->operators().connections(), 16u);
}

TEST_F(HttpTest, ServesThePageTheTraceAndTheMetrics) {
    EXPECT_THAT(body("/"), AllOf(StartsWith("<!doctype html>"), // which needs nothing from outside
                                 Not(ContainsRegex("(src|href)=|https?:"))));
    EXPECT_THAT(TestSupport::python("export/check_trace.py", body("/trace.json?x")),
                Contains(HasSubstr(" kelkv normal: \"http\" for ")));
    EXPECT_THAT(TestSupport::python("export/check_metrics.py", body("/metrics")),
                Contains("dead_tasks_total kelkv normal = 2"));
}

TEST_F(HttpTest, ServesGetAloneAndOnLoopbackToWhoNamesThisHost) {
    std::string const get = "GET / HTTP/1.1\r\nHost: ", junk(100000, 'x');
    for (auto const& [request, status] : std::initializer_list<std::pair<std::string, char const*>>{
             {get + "LOCALHOST:80\r\n\r\n", "200 "},
             {get + "127.0.0.1:80\r\n\r\n", "200 "},
             {get + "[::1]:80\r\n\r\n", "200 "},
             {get + "elsewhere.example\r\n\r\n", "421 "},
             {get + "localhost\r\nHost: localhost\r\n\r\n", "400 "},
             {"GET / HTTP/1.1\r\n\r\n", "400 "},
             {"GET / HTTP/1.0\r\n\r\n", "200 "},
             {"GET /etc/passwd HTTP/1.0\r\n\r\n", "404 "},
             {"POST /metrics HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", "405 "},
             {"NONSENSE /metrics HTTP/1.1\r\n\r\n", "405 "},
             {"HEAD /metrics HTTP/1.0\r\n\r\n", "405 "},
             {"junk\r\n\r\n" + junk, "400 "},
             {"GET / HTTP/1.1\r\nX: " + junk, "400 "}}) {
        std::string const answer = ask(request);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 " + std::string(status))) << request.substr(0, 60);
        EXPECT_EQ(answer.find("Allow: GET\r\n") != std::string::npos, answer.starts_with("HTTP/1.1 405"));
        EXPECT_EQ(answer.ends_with("\r\n\r\n"), request.starts_with("HEAD"));
    }
    EXPECT_TRUE(daemon->http()->endpoint().address().is_loopback());
}

TEST_F(HttpTest, AnswersOnceWhoeverRunsItsTaskAndWhileSuspendedAndLeavesNothing) {
    Client op = operatorClient(), browser(*loop, *daemon->http()), gone(*loop, *daemon->http());
    gone.send("GET /trace.json HTTP/1.0\r\n\r\n");
    gone.socket.close();
    browser.send("GET /metrics HTTP/1.0\r\n");
    EXPECT_EQ(daemon->http()->connections(), 1u);
    op.expect("SCHED CALL kelkv/http scheduleTask\r\nSCHED SET kelkv/suspended True\r\n", "+OK\r\n+OK\r\n");
    EXPECT_THAT(browser.askAll("\r\n"), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("keltask_")));
    Client half(*loop, *daemon->http());
    half.send("GET / HT");
    daemon.reset();
    EXPECT_EQ(half.receiveAll(), "");
}

TEST_F(HttpTest, ToldOfAnAnswerThatFailsInATaskOrAHandler) {
    TestSupport::TraceLog trace({0}, "Mox");
    HttpConnection::Page const page{"/", "", []() -> std::string { throw std::runtime_error("no page"); }};
    Listener http(loop->ioContext(), anyPort, 1, [&](tcp::socket socket) {
        return new HttpConnection(engine().root, {&page, 1}, std::move(socket));
    });
    for (bool const suspended : {false, true, false}) {
        engine().root->suspendedIs(suspended);
        EXPECT_THAT(ask("GET / HTTP/1.0\r\n\r\n", &http), StartsWith("HTTP/1.1 500 "));
        EXPECT_THAT(trace.take(), HasSubstr("no page"));
    }
}

} // namespace KelKv
