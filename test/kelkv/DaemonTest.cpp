#include "EngineTest.h"

#include <kelkv/Daemon.h>

#include <support/TraceLog.h>

#include <algorithm>
#include <deque>

namespace KelKv {

namespace {

using namespace testing;
using boost::asio::ip::tcp;

constexpr int turnsMax = 200000;

/// A client in the daemon's own thread: it turns the daemon's loop while it waits.
struct Client {
    Client(Kel::EventLoop& ofAll, Listener const& listener) : loop(ofAll) {
        socket.connect(listener.endpoint());
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
    /// What comes until there are so many bytes, until the daemon closes, or within so many turns.
    std::string receive(std::size_t size, int turns = turnsMax) {
        std::string got;
        for (char part[65536]; turns > 0 && got.size() < size && error != boost::asio::error::eof; --turns) {
            loop.runOnce();
            got.append(part, socket.read_some(boost::asio::buffer(part, size - got.size()), error));
        }
        return got;
    }
    /// What comes until the daemon closes.
    std::string askAll(std::string_view request = "") {
        send(request);
        std::string const all = receive(std::string::npos);
        EXPECT_EQ(error, boost::asio::error::eof);
        return all;
    }
    void expect(std::string_view request, std::string_view reply) {
        send(request);
        EXPECT_EQ(receive(reply.size()), reply) << request.substr(0, 60);
    }

    Kel::EventLoop& loop;
    boost::asio::io_context ownContext;
    tcp::socket socket{ownContext};
    boost::system::error_code error;
};

struct DaemonTest : Test {
    void TearDown() override {
        daemon.reset();
        loop->runOnce();
    }
    Engine& engine() { return daemon->engine(); }
    Client operatorClient() { return Client(*loop, daemon->operators()); }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    tcp::endpoint const anyPort{boost::asio::ip::address_v4::loopback(), 0};
    std::unique_ptr<Daemon> daemon = std::make_unique<Daemon>(loop, 0, 0, anyPort);
    Client client{*loop, daemon->clients()};
};

} // namespace

TEST_F(DaemonTest, PipelinedRequestsAreAnsweredInOrderAroundWalksThoughTheClientSendsNoMore) {
    fill(engine().store, 20000);
    Client other(*loop, daemon->clients());
    std::string pings, pongs; // more than a quantum's
    for (int i = 0; i < 10000; ++i)
        pings += "PING\r\n", pongs += "+PONG\r\n";
    client.send(pings + "KEYS key1999?\r\nDBSIZE EXACT\r\nECHO end\r\nhalf a reque");
    client.socket.shutdown(tcp::socket::shutdown_send);
    other.expect("INFO clients\r\n",
                 "$55\r\n# Clients\r\nconnected_clients:2\r\nconnected_operators:0\r\n\r\n");
    EXPECT_THAT(client.askAll(),
                AllOf(StartsWith(pongs + "*10\r\n$8\r\nkey1999"), EndsWith("\r\n:20000\r\n$3\r\nend\r\n")));
    ASSERT_NE(engine().background->deadTaskStats("dbsize"), nullptr) << "walks are the group's tasks";
    EXPECT_EQ(engine().background->deadTaskStats("dbsize")->taskWorkCount(), 20000u);
    EXPECT_THAT(engine().statistics(), ContainsRegex("\nTaskGroup;background\n(.*\n)*keys "));
    EXPECT_EQ(other.askAll("QUIT\r\nPING\r\n"), "+OK\r\n");
    EXPECT_EQ(daemon->clients().connections(), 0u);
}

TEST_F(DaemonTest, GetsAreAnsweredWhileWalksRunAndWalksMayBeUnderWayAtTheEnd) {
    fill(engine().store, 300000); // more than the sockets hold
    Client second(*loop, daemon->clients()), other(*loop, daemon->clients());
    client.send("KEYS *\r\n");
    second.send("KEYS *\r\nPING\r\nQUIT\r\n");
    for (int i = 0; i < 10; ++i)
        other.expect("GET key7\r\n", "$5\r\nvalue\r\n");
    EXPECT_EQ(engine().background->runnableTaskCount(Kel::TaskPriority::low), 2u);
    client.expect("", "*300000\r\n");
    client.socket.close();
    for (int i = 0; i < 20; ++i)
        other.expect("PING\r\n", "+PONG\r\n");
    EXPECT_EQ(daemon->clients().connections(), 2u);
    std::string const replies = second.askAll();
    EXPECT_EQ(std::ranges::count(replies, '$'), 300000);
    EXPECT_TRUE(replies.ends_with("+PONG\r\n+OK\r\n"));
    other.send("DBSIZE EXACT\r\n");
    Mox::Ptr<Kel::TaskGroup> const group = engine().background;
    daemon.reset();
    other.askAll();
    EXPECT_EQ(group->references(), 1u) << "a walk still holds it";
}

TEST_F(DaemonTest, WhatIsWrongOrFailsEndsItsConnectionOnly) {
    Client half(*loop, daemon->clients()), failing(*loop, daemon->clients());
    half.send("*2\r\n$3\r\nGET\r\n$5\r\nab");
    EXPECT_EQ(client.askAll("PING\r\n*1\r\n$2000000\r\nPING\r\n"),
              "+PONG\r\n-ERR Protocol error: the request is too large\r\n");
    TestSupport::TraceLog trace({0}, "Mox");
    engine().ports = []() -> Engine::Ports { throw std::runtime_error("no ports"); };
    EXPECT_EQ(failing.askAll("INFO\r\n"), "");
    EXPECT_THAT(trace.take(), HasSubstr("no ports"));
    HttpConnection::Page const page{"/", "", []() -> std::string { throw std::runtime_error("no page"); }};
    Listener http(loop->ioContext(), anyPort, 1, [&](tcp::socket socket) {
        return new HttpConnection(engine().root, {&page, 1}, std::move(socket));
    });
    for (bool const suspended : {true, false}) {
        engine().root->suspendedIs(suspended);
        EXPECT_THAT(Client(*loop, http).askAll("GET / HTTP/1.0\r\n\r\n"), StartsWith("HTTP/1.1 500 "));
        EXPECT_THAT(trace.take(), HasSubstr("no page"));
    }
    half.expect("cde\r\n", "$-1\r\n");
    EXPECT_THROW(Daemon(loop, daemon->clients().number(), 0), boost::system::system_error);
}

TEST_F(DaemonTest, ClientThatDoesNotReadIsNotReadFrom) {
    engine().store.set("big", std::string(500000, 'v'));
    std::string const p(60000, 'p');
    for (int i = 0; i < 100; ++i)
        client.send("GET big\r\n");
    Client(*loop, daemon->clients()).expect("PING\r\n", "+PONG\r\n");
    int sent = 0;
    while (sent < 500 && client.send("PING " + p + "\r\n", 100) == p.size() + 7)
        ++sent;
    EXPECT_LT(sent, 500); // 30 MB, where the limit and the sockets' buffers hold far less
    std::size_t const replies = 100 * (9 + 500000 + 2);
    EXPECT_EQ(client.receive(replies).size(), replies);
    client.expect("", "$60000\r\n" + p + "\r\n");
}

TEST_F(DaemonTest, OperatorIsAnsweredWhileTheSchedulerIsSuspended) {
    client.expect("PING\r\n", "+PONG\r\n");
    Client op = operatorClient(), other = operatorClient(), silent = operatorClient();
    op.expect("SCHED CALL kelkv/client resetStats\r\nSCHED SET kelkv/suspended True\r\n", "+OK\r\n+OK\r\n");
    EXPECT_THAT(other.askAll("SCHED HISTORY\r\nSCHED TRACE\r\nPING\r\nQUIT\r\nPING\r\n"),
                AllOf(HasSubstr("schedulerSuspended"), HasSubstr("run end    N client"),
                      HasSubstr("\"traceEvents\""), EndsWith("+PONG\r\n+OK\r\n")));
    op.expect("*2\r\n$7\r\nCOMMAND\r\n$4\r\nDOCS\r\nCLIENT SETINFO LIB-NAME x\r\n\r\nHELLO 3\r\n",
              "*0\r\n+OK\r\n-ERR unknown command 'HELLO'\r\n");
    silent.socket.shutdown(tcp::socket::shutdown_send);
    EXPECT_EQ(silent.askAll(), "");
    EXPECT_EQ(daemon->operators().connections(), 1u);
    op.send("ECHO waits\r\nPING\r\n");
    client.send("PING\r\n");
    EXPECT_EQ(op.receive(1, 50) + client.receive(1, 50), "");
    engine().root->suspendedIs(false);
    op.expect("", "$5\r\nwaits\r\n+PONG\r\n");
    client.expect("", "+PONG\r\n");
    // A command may have the connection's own task run.
    op.expect("SCHED CALL kelkv/operator taskRunFromTest\r\nSCHED SET kelkv/operator/taskRun 77\r\nPING\r\n",
              "+OK\r\n+OK\r\n+PONG\r\n");
}

TEST_F(DaemonTest, OneConnectionMoreThanAPortHasWaitsForItsPlace) {
    std::deque<Client> ops;
    for (int i = 0; i < 16; ++i)
        ops.emplace_back(*loop, daemon->operators()).expect("PING\r\n", "+PONG\r\n");
    Client next = operatorClient();
    next.send("PING\r\n");
    EXPECT_EQ(next.receive(1, 50), "");
    ops[3].socket.close();
    next.expect("", "+PONG\r\n");
    EXPECT_EQ(daemon->operators().connections(), 16u);
}

TEST_F(DaemonTest, HttpIsGetAloneOfAFewPagesAndOnLoopbackForWhoNamesThisHost) {
    std::string const host = "GET / HTTP/1.1\r\nHost: ", junk(100000, 'x');
    for (auto const& [request, answer] : std::initializer_list<std::pair<std::string, std::string>>{
             {host + "LOCALHOST:80\r\n\r\n", "200 .*\r\n\r\n<!doctype html>.*"},
             {host + "[::1]:80\r\n\r\n", "200 .*"},
             {host + "elsewhere.example\r\n\r\n", "421 .*"},
             {host + "localhost\r\nHost: localhost\r\n\r\n", "400 .*"},
             {"GET / HTTP/1.1\r\n\r\n", "400 .*"},
             {"GET /metrics HTTP/1.0\r\n\r\n", "200 .*keltask_.*"},
             {"GET /trace.json?x HTTP/1.0\r\n\r\n", "200 .*\"traceEvents\".*"},
             {"GET /etc/passwd HTTP/1.0\r\n\r\n", "404 .*"},
             {"POST /metrics HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", "405 .*Allow: GET\r\n.*GET only\n"},
             {"HEAD /metrics HTTP/1.0\r\n\r\n", "405 .*\r\n\r\n"},
             {"junk\r\n\r\n" + junk, "400 .*"},
             {"GET / HTTP/1.1\r\nX: " + junk, "400 .*"}})
        EXPECT_THAT(Client(*loop, *daemon->http()).askAll(request), MatchesRegex("HTTP/1.1 " + answer))
            << request.substr(0, 60);
    EXPECT_TRUE(daemon->http()->endpoint().address().is_loopback());
}

TEST_F(DaemonTest, HttpAnswersOnceWhoeverRunsItsTaskAndWhileSuspendedAndLeavesNothing) {
    Client op = operatorClient(), browser(*loop, *daemon->http()), gone(*loop, *daemon->http());
    gone.send("GET /trace.json HTTP/1.0\r\n\r\n");
    gone.socket.close();
    browser.send("GET /metrics HTTP/1.0\r\n");
    EXPECT_EQ(daemon->http()->connections(), 1u);
    op.expect("SCHED CALL kelkv/http scheduleTask\r\nSCHED SET kelkv/suspended True\r\n", "+OK\r\n+OK\r\n");
    EXPECT_THAT(browser.askAll("\r\n"), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("keltask_")));
    op.expect("SCHED CALL kelkv/http taskRunFromTest\r\nSCHED LS kelkv/http/x\r\n", "+OK\r\n-ERR");
    EXPECT_EQ(daemon->http()->connections(), 1u) << "it waits for its client to close";
    Client half(*loop, *daemon->http());
    half.send("GET / HT");
    daemon.reset();
    EXPECT_EQ(half.askAll(), "");
}

} // namespace KelKv
