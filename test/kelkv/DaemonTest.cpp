#include "EngineTest.h"

#include <kelkv/Daemon.h>

#include <support/ManualClock.h>
#include <support/TraceLog.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <thread>

namespace KelKv {

namespace {

using namespace testing;
using namespace std::chrono_literals;
using boost::asio::ip::tcp;

constexpr int turnsMax = 200000;

/// A client in the daemon's own thread: it turns the daemon's loop while it waits.
struct Client {
    explicit Client(Kel::EventLoop& ofAll) : loop(ofAll) { socket.open(tcp::v4()); }
    Client(Kel::EventLoop& ofAll, Listener const& listener) : Client(ofAll) { connect(listener); }
    void connect(Listener const& listener) {
        socket.connect(listener.endpoint());
        socket.non_blocking(true);
    }

    /// After many turns the system is late, and not the daemon.
    void turn(int left) {
        if (left < turnsMax - 10'000)
            std::this_thread::sleep_for(100us);
        loop.runOnce();
    }
    /// As much as the daemon takes within so many turns.
    std::size_t send(std::string_view bytes, int turns = turnsMax) {
        std::size_t sent = 0;
        for (; turns > 0 && sent < bytes.size(); --turns) {
            sent += socket.write_some(boost::asio::buffer(bytes.substr(sent)), error);
            turn(turns);
        }
        return sent;
    }
    /// What comes until there are so many bytes, until the daemon closes, or within so many turns.
    std::string receive(std::size_t size, int turns = turnsMax) {
        std::string got;
        for (char part[65536]; turns > 0 && got.size() < size && error != boost::asio::error::eof; --turns) {
            turn(turns);
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
        std::string const got = receive(reply.size());
        EXPECT_TRUE(got == reply) << request.substr(0, 60) << ": " << got.substr(0, 200);
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
    Client newClient() { return Client(*loop, daemon->clients()); }
    Client operatorClient() { return Client(*loop, daemon->operators()); }
    Client httpClient() { return Client(*loop, *daemon->http()); }
    /// Turns until no more are connected there.
    void waitFor(Listener const& port, std::size_t connections) {
        for (int turns = 0; turns < turnsMax && port.connections() > connections; ++turns)
            client.turn(turnsMax - turns);
        EXPECT_EQ(port.connections(), connections);
    }

    TestSupport::VirtualTime time;
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    tcp::endpoint const anyPort{boost::asio::ip::address_v4::loopback(), 0};
    std::unique_ptr<Daemon> daemon =
        std::make_unique<Daemon>(loop, Daemon::Options{.port = 0, .operatorPort = 0, .http = anyPort});
    Client client = newClient();
};

} // namespace

TEST_F(DaemonTest, PipelinedRequestsAreAnsweredInOrderAroundWalksThoughTheClientSendsNoMore) {
    fill(engine().store, 20000);
    Client other = newClient();
    std::string pings, pongs; // more than a quantum's
    for (int i = 0; i < 10000; ++i)
        pings += "PING\r\n", pongs += "+PONG\r\n";
    client.send(pings + "KEYS key1999?\r\nDBSIZE EXACT\r\nECHO end\r\nhalf a reque");
    client.socket.shutdown(tcp::socket::shutdown_send);
    EXPECT_THAT(client.askAll(),
                AllOf(StartsWith(pongs + "*10\r\n$8\r\nkey1999"), EndsWith("\r\n:20000\r\n$3\r\nend\r\n")));
    ASSERT_NE(engine().background->deadTaskStats("dbsize"), nullptr) << "walks are the group's tasks";
    EXPECT_EQ(engine().background->deadTaskStats("dbsize")->taskWorkCount(), 20000u);
    EXPECT_NE(engine().background->deadTaskStats("client;more"), nullptr) << "and so is who asks much";
    EXPECT_THAT(Kel::wholeText(*engine().statistics()),
                ContainsRegex("\nTaskGroup;background\n(.*\n)*keys "));
    EXPECT_EQ(other.askAll("QUIT\r\nPING\r\n"), "+OK\r\n");
    waitFor(daemon->clients(), 0);
}

TEST_F(DaemonTest, WithoutADescriptorAClientIsToldSoAndAnOperatorGetsIn) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "sanitizers take descriptors to look at memory";
#endif
    Client refused(*loop), asks(*loop);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit const few{std::min<rlim_t>(before.rlim_cur, 256), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<int> held;
    for (int descriptor = 0; (descriptor = dup(STDOUT_FILENO)) >= 0;)
        held.push_back(descriptor);
    refused.connect(daemon->clients());
    EXPECT_THAT(refused.askAll(), StartsWith("-ERR max number of clients"));
    asks.connect(daemon->operators());
    asks.expect("PING\r\n", "+PONG\r\n");
    std::ranges::for_each(held, close);
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(DaemonTest, GetsAreAnsweredWhileWalksRunAndWalksMayBeUnderWayAtTheEnd) {
    fill(engine().store, 300000); // more than the sockets hold
    Client second = newClient(), other = newClient();
    client.send("KEYS *\r\n");
    second.send("KEYS *\r\nPING\r\nQUIT\r\n");
    for (int i = 0; i < 10; ++i)
        other.expect("GET key7\r\n", "$5\r\nvalue\r\n");
    EXPECT_EQ(engine().background->runnableTaskCount(Kel::TaskPriority::low), 2u);
    client.expect("", "*300000\r\n");
    client.socket.close();
    other.expect("PING\r\n", "+PONG\r\n");
    waitFor(daemon->clients(), 2);
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
    Client half = newClient(), failing = newClient();
    half.send("*2\r\n$3\r\nGET\r\n$5\r\nab");
    EXPECT_EQ(client.askAll("PING\r\n*1\r\n$536870913\r\nPING\r\n"),
              "+PONG\r\n-ERR Protocol error: invalid bulk length\r\n");
    for (std::string const before : {"", "\r\n"})
        EXPECT_EQ(newClient().askAll(before + "POST / HTTP/1.1\r\nFLUSHALL\r\n"),
                  "-ERR this port does not speak HTTP\r\n");
    TestSupport::TraceLog trace({0}, "Mox");
    engine().ports = []() -> Engine::Ports { throw std::runtime_error("no ports"); };
    EXPECT_EQ(failing.askAll("INFO\r\n"), "");
    EXPECT_THAT(trace.take(), HasSubstr("no ports"));
    HttpConnection::Page const page{"/", "", []() -> SlicedTextPtr { throw std::runtime_error("no page"); }};
    Listener http(loop->ioContext(), anyPort, {2, ""}, engine().log, [&](tcp::socket socket) {
        return new HttpConnection(engine(), {&page, 1}, std::move(socket));
    });
    for (bool const suspended : {true, false}) {
        engine().root->suspendedIs(suspended);
        EXPECT_THAT(Client(*loop, http).askAll("GET / HTTP/1.0\r\n\r\n"), StartsWith("HTTP/1.1 500 "));
        EXPECT_THAT(trace.take(), HasSubstr("no page"));
    }
    half.expect("cde\r\n", "$-1\r\n");
    std::string const number = std::to_string(daemon->clients().number());
    EXPECT_THAT([&] { Daemon(loop, {.port = daemon->clients().number(), .operatorPort = 0}); },
                ThrowsMessage<std::system_error>("cannot listen on 127.0.0.1:" + number +
                                                 ": Address already in use"));
}

TEST_F(DaemonTest, ClientThatDoesNotReadIsNotReadFrom) {
    engine().store.set("big", std::string(500000, 'v'));
    std::string const p(60000, 'p');
    for (int i = 0; i < 100; ++i)
        client.send("GET big\r\n");
    newClient().expect("PING\r\n", "+PONG\r\n");
    int sent = 0;
    while (sent < 500 && client.send("PING " + p + "\r\n", 100) == p.size() + 7)
        ++sent;
    EXPECT_LT(sent, 500); // 30 MB, where the limit and the sockets' buffers hold far less
    std::size_t const replies = 100 * (9 + 500000 + 2);
    EXPECT_EQ(client.receive(replies).size(), replies);
    client.expect("", bulk(p));
}

TEST_F(DaemonTest, OperatorIsAnsweredWhileTheSchedulerIsSuspended) {
    client.expect("PING\r\n", "+PONG\r\n");
    Client op = operatorClient(), other = operatorClient(), silent = operatorClient();
    std::string const much(9000, 'x'); // of which clients' is not to starve
    op.expect("ECHO " + much + "\r\nSCHED GET kelkv/operator;more/taskPriority\r\n",
              bulk(much) + bulk("'low'"));
    fill(engine().store, 3000);
    op.expect("SCHED CALL kelkv/client resetStats\r\nSCHED SET kelkv/suspended True\r\n", "+OK\r\n+OK\r\n");
    op.expect("DBSIZE EXACT\r\nKEYS *999\r\n", ":3000\r\n*3\r\n");
    op.receive(bulk("key999").size() + 2 * bulk("key1999").size());
    EXPECT_THAT(other.askAll("SCHED HISTORY\r\nSCHED TRACE\r\nPING\r\nQUIT\r\nPING\r\n"),
                AllOf(HasSubstr("schedulerSuspended"), HasSubstr("run end    N client"),
                      HasSubstr("\"traceEvents\""), EndsWith("+PONG\r\n+OK\r\n")));
    silent.socket.shutdown(tcp::socket::shutdown_send);
    EXPECT_EQ(silent.askAll(), "");
    EXPECT_EQ(daemon->operators().connections(), 1u);
    client.send("PING\r\n");
    op.expect("ECHO too\r\nSCHED SET kelkv/hasNotificationActive False\r\n", "$3\r\ntoo\r\n+OK\r\n");
    op.expect("SCHED SET kelkv/suspended False\r\nSCHED SET kelkv/operator/hasNotificationActive False\r\n",
              "+OK\r\n+OK\r\n");
    EXPECT_EQ(client.receive(1, 50), "") << "the scheduler is switched off";
    op.expect("SCHED SET kelkv/hasNotificationActive True\r\n", "+OK\r\n");
    client.expect("", "+PONG\r\n");
    // A command may have the connection's own task run.
    op.expect("SCHED CALL kelkv/operator taskRunFromTest\r\nSCHED SET kelkv/operator/taskRun 77\r\nPING\r\n",
              "+OK\r\n+OK\r\n+PONG\r\n");
}

TEST_F(DaemonTest, OneConnectionMoreThanAPortHasIsToldAndLeavesTheOthersAlone) {
    std::deque<Client> ops;
    for (int i = 0; i < 16; ++i)
        ops.emplace_back(*loop, daemon->operators()).expect("PING\r\n", "+PONG\r\n");
    EXPECT_EQ(operatorClient().askAll("PING\r\n"), "-ERR max number of clients reached\r\n");
    ops.pop_back();
    ops.front().expect("PING\r\n", "+PONG\r\n");
    operatorClient().expect("PING\r\n", "+PONG\r\n");
    Engine::Port const port = engine().ports().operators;
    EXPECT_EQ(std::tuple(port.accepted, port.refused), std::tuple(17u, 1u));
}

// Its task is scheduled once a turn, so that one that has much to do takes many.
TEST_F(DaemonTest, WhatAConnectionReadsAndAnswersIsItsTasksWorkInTurns) {
    std::string const value(4 << 20, 'v');
    Client other = newClient();
    client.expect("*3\r\n" + bulk("SET") + bulk("k") + bulk(value), "+OK\r\n");
    client.expect("GET k\r\n", bulk(value));
    std::string mset = "*20001\r\n" + bulk("MSET");
    for (int i = 10000; i < 30000; ++i)
        mset += bulk(std::to_string(i));
    client.expect(mset, "+OK\r\n");
    EXPECT_EQ(engine().store.size(), 10001u);
    client.expect("GET k\r\nGET k\r\n", "$4194304\r\n");
    other.expect("DEL k\r\n", ":1\r\n");
    client.expect("", value + "\r\n$-1\r\n"); // the second one waited for the first to be read
    for (char c = 'a'; c <= 'p'; ++c)         // whose pieces are more than one step sends
        engine().store.set(std::string(1 << 20, c), "v");
    other.send("KEYS *\r\n");
    for (int i = 0; i < 1000; ++i)
        loop->runOnce();
    std::size_t const size = 5 + 16 * (10 + (1 << 20) + 2);
    EXPECT_EQ(other.receive(size).size(), size);
    ByteShare others(engine().walkBytes);
    others.sizeIs(engine().walkBytes.most());
    newClient().expect("KEYS *\r\n", "-OOM replies to KEYS that nobody has read take too much memory");
    EXPECT_EQ(engine().walkBytes.refused(), 1u);
    Client asks = operatorClient();
    asks.send("KEYS *\r\n");
    EXPECT_EQ(asks.receive(size).size(), size) << "it has a room of its own";
}

// Somebody who does not send it all keeps no room from who asks less; who sends little always has some.
TEST_F(DaemonTest, RequestsThatComeInTogetherTakeNoMoreThanThereIsRoomFor) {
    ByteShare others(engine().requestBytes);
    others.sizeIs(others.size() + engine().requestBytes.most() - 250000);
    Client large = newClient();
    std::string const set = "*3\r\n" + bulk("SET") + bulk("k") + bulk(std::string(300000, 'v'));
    large.send(set.substr(0, 200000));
    client.expect("*3\r\n" + bulk("SET") + bulk("a") + bulk(std::string(100000, 'v')), "+OK\r\n");
    large.expect(set.substr(200000) + "PING\r\n",
                 "-OOM the request is too large beside those under way\r\n+PONG\r\n");
    others.sizeIs(0);
    engine().store.set("big", std::string(16 << 20, 'b'));
    large.send("GET big\r\n" + set); // which waits until that is read
    for (int turns = turnsMax; turns > 0 && engine().requestBytes.used() < 300000; --turns)
        large.turn(turns);
    others.sizeIs(engine().requestBytes.most() - 250000);
    client.expect("*3\r\n" + bulk("SET") + bulk("a") + bulk(std::string(100000, 'v')), "+OK\r\n");
    large.expect("", bulk(std::string(16 << 20, 'b')) +
                         "-OOM the request is too large beside those under way\r\n");
    others.sizeIs(2 * engine().requestBytes.most());
    client.expect("SET a 1\r\n", "+OK\r\n");
    EXPECT_EQ(engine().store.find("k"), nullptr);
    others.sizeIs(0);
    large.expect(set, "+OK\r\n");
    EXPECT_EQ(engine().requestBytes.used(), 0u);
    std::string mget = "*200\r\n" + bulk("MGET"); // of which it reads nothing
    for (int i = 0; i < 198; ++i)
        mget += bulk("big");
    large.send(mget + bulk(std::string(200000, 'k')));
    for (int turns = turnsMax; turns > 0 && engine().replyBytes.used() == 0; --turns)
        large.turn(turns);
    others.sizeIs(engine().requestBytes.most() - 250000);
    client.expect("*3\r\n" + bulk("SET") + bulk("a") + bulk(std::string(100000, 'v')), "+OK\r\n");
    EXPECT_THAT(large.askAll(), StartsWith("*199\r\n"));
}

TEST_F(DaemonTest, HttpIsGetAndHeadOfAFewPagesAndOnLoopbackForWhoNamesThisHost) {
    std::string const junk(300000, 'x'), named = " HTTP/1.1\r\nConnection: close\r\nHost: ";
    std::string const get = "GET /" + named, post = "POST /" + named + "localhost\r\n";
    for (auto const& [request, answer] : std::initializer_list<std::pair<std::string, std::string>>{
             {get + "LOCALHOST:80\r\n\r\n",
              "200 .*chunked\r\n.*\r\n\r\n[0-9a-f]*\r\n<!doctype html>.*\r\n0\r\n\r\n"},
             {"\r\n\r\n" + get + "[::1]:80\r\n\r\n", "200 .*"},
             {"\r\n\r" + get + "localhost\r\n\r\n", "400 .*"},
             {"GET /" + junk, "414 .*"},
             {get + "elsewhere.example\r\n\r\n", "421 .*"},
             {get + "localhost:x@elsewhere.example\r\n\r\n", "400 .*"},
             {get + "localhost\r\nHost: localhost\r\n\r\n", "400 .*"},
             {"GET HTTP://localhost:81/metrics" + named + "elsewhere.example\r\n\r\n",
              "200 .*kelkv_keys 0\n.*"},
             {"GET http://elsewhere.example/" + named + "localhost\r\n\r\n", "421 .*"},
             {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", "400 .*"},
             {"GET /metrics HTTP/1.0\r\n\r\n", "200 .*keltask_.*port=\"http\"} 1\n.*kelkv_keys 0\n"},
             {"GET /trace.json?x HTTP/1.0\r\n\r\n", "200 .*\"traceEvents\".*"},
             {"GET /etc/passwd HTTP/1.0\r\n\r\n", "404 .*"},
             {"HEAD /none" + named + "localhost\r\n\r\n", "404 .*\r\n\r\n"},
             {"HEAD /metrics" + named + "localhost\r\n\r\n", "200 .*chunked\r\n.*\r\n\r\n"},
             {"OPTIONS *" + named + "localhost\r\n\r\n", "405 .*Allow: GET, HEAD\r\n.*HEAD only\n"},
             {post + "Content-Length: 3\r\n\r\nabc", "405 .*"},
             {post + "Content-Length: 70000\r\n\r\n" + junk, "413 .*"},
             {post + "Transfer-Encoding: chunked\r\n\r\n1;" + junk, "413 .*"},
             {post + "Transfer-Encoding: chunked\r\n\r\nz\r\n" + junk, "400 .*"},
             {post + "Expect: 100-continue\r\nContent-Length: 3\r\n\r\n", "417 .*"},
             {"junk\r\n\r\n" + junk, "400 .*"},
             {"GET / HTTP/1.1\r\nX: " + junk, "431 .*"}}) {
        EXPECT_THAT(httpClient().askAll(request), MatchesRegex("HTTP/1.1 " + answer))
            << request.substr(0, 60);
        waitFor(*daemon->http(), 0);
    }
    EXPECT_TRUE(daemon->http()->endpoint().address().is_loopback());
}

// Those that are idle make room at the limit, and one that has begun a request does not.
TEST_F(DaemonTest, HttpConnectionsAreKeptForRequestsOneAfterAnotherAndUntilOthersNeedThem) {
    std::string const get = "GET /none HTTP/1.1\r\nHost: localhost\r\n";
    std::string const once = httpClient().askAll(get + "Connection: close\r\n\r\n");
    std::string const kept = boost::erase_first_copy(once, "Connection: close\r\n");
    Client busy = httpClient();
    for (int i = 0; i < 20; ++i) // together more than one request may have
        busy.expect(get + "X: " + std::string(7000, 'x') + "\r\n\r\n", kept);
    busy.expect(get + "\r\n\r\n" + get + "\r\n\r\n\r", kept + kept);
    busy.expect("\n" + get, "");
    std::deque<Client> idle;
    for (int i = 0; i < 20; ++i)
        idle.emplace_back(*loop, *daemon->http()).expect(get + "\r\n", kept);
    busy.expect("\r\n", kept);
    EXPECT_EQ(idle.front().askAll(), "");
    EXPECT_EQ(daemon->http()->connections(), 16u);
    for (int i = 0; i < 5; ++i)
        idle.pop_front();
    for (Client& each : idle)
        each.send(get);
    busy.send(get);
    busy.expect("X: ", busy.receive(1, 50)); // what was sent is read
    EXPECT_THAT(httpClient().askAll(), StartsWith("HTTP/1.1 503 "));
    Engine::Port const port = engine().ports().http;
    EXPECT_EQ(std::tuple(port.accepted, port.refused, port.displaced), std::tuple(22u, 1u, 5u));
}

// Time is moved by hand; the timer of the system is far ahead of it.
TEST_F(DaemonTest, EndThatIsPutOffComesNoEarlier) {
    engine().patience.idleOperator = 2ms;
    Client op = operatorClient();
    op.expect("PING\r\n", "+PONG\r\n");
    TestSupport::ManualClock steady(std::chrono::steady_clock::now().time_since_epoch());
    for (int i = 0; i < 10; ++i) {
        op.expect("PING\r\n", "+PONG\r\n");
        steady.advance(1500us);
        std::this_thread::sleep_for(3ms);
        EXPECT_EQ(op.receive(1, 50), "");
    }
    EXPECT_EQ(daemon->operators().connections(), 1u);
    steady.advance(2ms);
    EXPECT_EQ(op.askAll(), "");
}

// Bytes that are no request, or go on with one, put no end off.
TEST_F(DaemonTest, WhoIsIdleOrTakesTooLongIsClosedWhateverItSends) {
    struct Attempt {
        Listener const& port;
        std::string_view begin, drip;
    };
    for (auto const& [port, begin, drip] : {Attempt{daemon->operators(), "PING\r\n", "\r\n"},
                                            {*daemon->http(), "", ""},
                                            {*daemon->http(), "GET / HTTP/1.1\r\nX: ", "x"}}) {
        engine().patience = {50ms, 50ms, begin.empty() ? 50ms : 600'000ms}; // no end waits for a later one
        Client slow(*loop, port);
        slow.send(begin);
        while (port.connections() > 0) {
            slow.send(drip);
            loop->runOnce();
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_EQ(slow.receive(1000), begin.starts_with("PING") ? "+PONG\r\n" : "");
    }
}

TEST_F(DaemonTest, HttpAnswersOnceWhoeverRunsItsTaskAndWhileSuspendedAndLeavesNothing) {
    Client op = operatorClient(), browser = httpClient(), gone = httpClient();
    gone.send("GET /trace.json HTTP/1.0\r\n\r\n");
    gone.socket.close();
    browser.send("GET /metrics HTTP/1.0\r\n");
    waitFor(*daemon->http(), 1); // until the trace that nobody reads is through
    op.expect("SCHED CALL kelkv/http scheduleTask\r\nSCHED SET kelkv/suspended True\r\n", "+OK\r\n+OK\r\n");
    EXPECT_THAT(browser.askAll("\r\n"), AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("keltask_")));
    op.expect("SCHED CALL kelkv/http taskRunFromTest\r\nSCHED LS kelkv/http/x\r\n", "+OK\r\n-ERR");
    EXPECT_EQ(daemon->http()->connections(), 1u) << "it waits for its client to close";
    Client half = httpClient();
    half.send("GET / HT");
    daemon.reset();
    EXPECT_EQ(half.askAll(), "");
}

} // namespace KelKv
