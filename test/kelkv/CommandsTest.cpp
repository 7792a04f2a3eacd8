#include "EngineTest.h"

#include <support/Golden.h>

namespace KelKv {

namespace {

struct CommandsTest : EngineTest {
    /// The reply, with a blank for each end of a line, and what is to follow.
    std::string ask(std::string const& line) {
        std::string reply = client.ask(requestsIn(RequestParser(), line + "\n").at(0));
        if (client.context->next == CommandContext::Next::walk)
            reply += "walk " + client.context->pattern.value_or("to count");
        else if (client.context->next == CommandContext::Next::close)
            reply += "close";
        boost::replace_all(reply, "\r\n", " ");
        return boost::trim_right_copy(reply);
    }
    /// Replies behind the requests that have them: " | " is between requests, " > " before the reply, and two
    /// blanks or an end of a line before the next.
    void expect(std::string const& script) {
        for (std::string const& row : rowsOf(script)) {
            std::size_t const mark = row.find(" > ");
            Words requests;
            for (auto const& request :
                 boost::split_regex(requests, row.substr(0, mark), boost::regex(R"( \| )")))
                EXPECT_EQ(ask(request), row.substr(mark + 3)) << request;
        }
    }

    CommandClient client{engine};
};

} // namespace

// What a model would only say again is in CommandsModelTest.
TEST_F(CommandsTest, NumbersThatAreNoneOrTooLargeAreRefused) {
    expect(R"(
        SET n 9223372036854775806 > +OK  INCR n > :9223372036854775807  INCRBY n -1 > :9223372036854775806
        INCRBY n 2 > -ERR increment or decrement would overflow
        DECRBY n -9223372036854775808 | DECRBY none -9223372036854775808 > -ERR decrement would overflow
        GET n > $19 9223372036854775806  SET n 9223372036854775808 > +OK  SET m 07 > +OK  SET o 1x > +OK
        INCR n | DECR m | DECR o | INCRBY p -0 | INCRBY p 1.5 > -ERR value is not an integer or out of range
        SET t xyz > +OK  GETRANGE t -1 -2 | GETRANGE t -5 -10 | GETRANGE t -9 -8 > $0
        GETRANGE t -9 -3 > $1 x  GETRANGE t -2 9 > $2 yz
        INCRBYFLOAT f 0.1 > $3 0.1  INCRBYFLOAT f 2e-1 > $3 0.3  INCRBYFLOAT f -0.3 | INCRBYFLOAT f -1e-19 > $1 0
        INCRBYFLOAT o 1 | INCRBYFLOAT f nan > -ERR value is not a valid float  SET g 1e4932 > +OK
        INCRBYFLOAT f inf | INCRBYFLOAT g 1e4932 > -ERR increment would produce NaN or Infinity
        SETRANGE r -1 x > -ERR offset is out of range
        SETRANGE r 536870912 x > -ERR string exceeds maximum allowed size (512MB)
        SETRANGE r 262144 x > -ERR SETRANGE is for texts of 262144 bytes at most
        SETRANGE r 9223372036854775807 "" | EXISTS r > :0
        SCAN x | SCAN -1 > -ERR invalid cursor  SCAN 0 COUNT 0 | SCAN 0 MATCH > -ERR syntax error
        SCAN 18446744073709551615 | SCAN 9007199254740992 | SCAN 0 TYPE list > *2 $1 0 *0)");
}

TEST_F(CommandsTest, LivesBeyondTheBoundAreRefusedAndLeaveTheKeyAlone) {
    expect(R"(
        SET k v > +OK  EXPIRE k 9223370399119966 | EXPIRE k 9223372036854776 | EXPIRE k 18446744073709561 | EXPIRE k -9223372036854776 | EXPIRE k 9223372036854775807 | EXPIRE k 4611686018427388 > -ERR invalid expire time in 'expire' command
        set k v EX 0 | set k v PX -1 | set k v EX 10000000000000000 | set k v EXAT -1 > -ERR invalid expire time in 'set' command
        setex k -10 v > -ERR invalid expire time in 'setex' command  psetex k 0 v > -ERR invalid expire time in 'psetex' command
        getex k EX 0 | getex k PXAT 0 > -ERR invalid expire time in 'getex' command
        PEXPIRE k 9223372036854770000 > -ERR invalid expire time in 'pexpire' command  TTL k > :-1
        EXPIRE k "" | SET k v EX x > -ERR value is not an integer or out of range
        SET k v EX | SET k v EX 1 PX 1 | SET k v EX 1 KEEPTTL | SET k v NX XX | SET k v AB | GETEX k PERSIST EX > -ERR syntax error
        EXPIRE k 1 NX GT > -ERR NX and XX, GT or LT options at the same time are not compatible
        EXPIRE k 1 GT LT > -ERR GT and LT options at the same time are not compatible  EXPIRE k 1 AB > -ERR Unsupported option AB
        GETEX k EX 9 PERSIST | GETEX k PERSIST PX 9 | GETEX k PERSIST EXAT | GETEX k NX > -ERR syntax error
        EXPIRE k 9 GT | EXPIRE k 9 XX | EXPIRE none 9 > :0  EXPIRE k 9 LT > :1  EXPIRE k 8 NX > :0  EXPIRE k 9 XX GT | EXPIRE k 9 lt > :0
        EXPIREAT k 1000000009 GT | EXPIREAT k 1000000009 LT > :0  EXPIREAT k 1000000010 xx gt > :1  PERSIST k > :1  PERSIST k > :0
        PTTL k > :-1  PEXPIRE k 4611686018427387904 > :1  PEXPIRE k 4611686018427387905 > -ERR invalid expire time in 'pexpire' command  EXPIRE k 4611686018427387 > :1  TTL k > :4611686018427387  EXPIRETIME k > :4611687018427387
        PEXPIREAT k 9223372036854775807 > :1  TTL k > :9223371036854776  PEXPIREAT k -9223372036854775808 > :1  EXISTS k > :0
        SET k v PXAT 1 > +OK  GET k > $-1  SET k v EX 50 > +OK  TTL k > :50  PEXPIRE k 50499 > :1  TTL k > :50  PEXPIRE k 50500 > :1  TTL k > :51)");
}

TEST_F(CommandsTest, ClientProgramsAreAnsweredAsTheyBegin) {
    expect(R"(
        "a\x1f+OK\n" > -ERR unknown command 'a +OK '  ping > +PONG  PING x > $1 x  ECHO x > $1 x  QUIT > +OK close  GET > -ERR wrong number of arguments for 'get' command
        CONFIG SET save x > -ERR CONFIG SET is not supported: settings are options that the daemon starts with
        CONFIG GET save APPEND* > *4 $10 appendonly $2 no $4 save $0  CONFIG GET x > *0  SELECT 0 > +OK  SELECT x > -ERR value is not an integer or out of range
        CLIENT GETNAME > $-1  CLIENT SETNAME x > +OK  CLIENT GETNAME > $1 x  CLIENT ID > :1  CLIENT SETINFO lib-name y > +OK
        CLIENT ID x > -ERR wrong number of arguments for 'client|id' command
        CLIENT KILL > -ERR unknown subcommand 'KILL' of 'client'  CLIENT SETNAME > -ERR wrong number of arguments for 'client|setname' command
        HELLO 4 > -NOPROTO unsupported protocol version  HELLO 3 SETNAME z AUTH a b > -ERR AUTH is not supported: nobody has a password
        CLIENT GETNAME > $1 x  HELLO 3 SETNAME z > %7 $6 server $5 kelkv $7 version $5 7.0.0 $5 proto :3 $2 id :1 $4 mode $10 standalone $4 role $6 master $7 modules *0
        CLIENT GETNAME > $1 z  GET none > _  CLIENT LIST TYPE pubsub > =4 txt:  COMMAND INFO get > *1 *6 $3 get :2 ~0 :1 :1 :1  CONFIG GET save > %1 $4 save $0  RESET > +RESET  CLIENT GETNAME > $-1
        COMMAND INFO mset no ping > *3 *6 $4 mset :-3 *0 :1 :-1 :2 $-1 *6 $4 ping :-1 *0 :0 :0 :0  COMMAND DOCS get no > *2 $3 get *2 $7 summary $15 see man 1 kelkv
        MULTI > -ERR MULTI is not supported: no two commands are one step, multi has nothing to do
        SCHED RESET > -ERR SCHED is for the operator's port  INFO none > $0  DBSIZE exact > walk to count  KEYS b* > walk b*
        DBSIZE x > -ERR syntax error  FLUSHALL WORD > -ERR syntax error  FLUSHDB async > +OK  RANDOMKEY > $-1  RENAME no x > -ERR no such key
        CLIENT LIST TYPE PubSub > $0  CLIENT LIST TYPE foo > -ERR Unknown client type 'foo'  CLIENT LIST ID > -ERR syntax error
        CLIENT SETNAME "a b" | CLIENT SETNAME "a\x7f" | HELLO 3 SETNAME "a b" | CLIENT SETINFO lib-ver "a b" > -ERR Client names cannot contain spaces, newlines or special characters.
        HELLO 3 SETNAME x NO > -ERR syntax error in HELLO  HELLO 3 SETNAME > -ERR syntax error in HELLO  CLIENT GETNAME > $-1
        CLIENT SETINFO name x > -ERR unknown attribute of CLIENT SETINFO  SELECT 1 > -ERR DB index is out of range: there is one, 0
        CLIENT NO-EVICT on > +OK  CLIENT NO-TOUCH x > -ERR syntax error  CLIENT LIST TYPE > -ERR syntax error  AUTH x > -ERR AUTH is not supported: nobody has a password
        COPY a b > :0  COPY a b DB > -ERR syntax error  COPY a b NO > -ERR syntax error
        COPY a b DB 1 > -ERR DB index is out of range: there is one, 0  COPY a b DB x > -ERR value is not an integer or out of range
        COPY a a > -ERR source and destination objects are the same  MSET a 1 b > -ERR wrong number of arguments for 'mset' command
        SET a 1 EX 9 > +OK  SET b 1 > +OK  info keyspace > $44 # Keyspace db0:keys=2,expires=1,avg_ttl=0
        COPY a b DB 0 > :0  COPY a b REPLACE DB 0 | COPY a b DB 0 REPLACE > :1  TTL b > :9)");
    for (char const* request : {"CLIENT SETNAME ", "CLIENT SETINFO lib-ver ", "HELLO 3 SETNAME "}) {
        EXPECT_NE(ask(request + std::string(256, 'x'))[0], '-');
        EXPECT_EQ(ask(request + std::string(257, 'x')), "-ERR a name has no more than 256 bytes");
    }
    for (std::size_t const size : {16u, 17u, 65u})
        EXPECT_EQ(ask(std::string(size, 'x')),
                  "-ERR unknown command '" + std::string(std::min<std::size_t>(size, 64), 'x') + "'");
    EXPECT_THAT(ask("INFO"),
                testing::ContainsRegex("# Server .*connected_clients:.*loading:0 .*role:master .*db0:keys"));
    EXPECT_THAT(ask("INFO default"), testing::Not(testing::HasSubstr("Scheduler")));
    EXPECT_THAT(ask("INFO everything"), testing::ContainsRegex("# Server .*# Scheduler .*TotalRunCount"));
    EXPECT_EQ(ask("COMMAND COUNT").substr(1), ask("COMMAND").substr(1, 2));
}

// Each figure is another number, so that none can stand in another's place.
TEST_F(CommandsTest, FiguresAreToldUnderTheirNames) {
    EXPECT_EQ(Kel::wholeText(*engine.metrics()).find("{port="), std::string::npos) << "there is none";
    engine.ports = [] {
        return Engine::Ports{{1, 2, 3, 4, 5, 6}, {11, 12, 13, 14, 15, 16}, {21, 22, 23, 24, 25, 26}};
    };
    std::deque<ByteShare> shares;
    for (ByteLimit* limit :
         {&engine.requestBytes, &engine.walkBytes, &engine.operatorBytes, &engine.replyBytes}) {
        shares.emplace_back(*limit).sizeIs(30 + shares.size());
        for (std::size_t i = 0; i < shares.size(); ++i)
            shares.back().refusedInc();
    }
    expect(R"(
        INFO clients > $137 # Clients connected_clients:2 maxclients:3 blocked_clients:0 connected_operators:12 maxoperators:13 connected_http:22 maxhttp:23
        x > -ERR unknown command 'x'  SET k v PX 1 > +OK)");
    time.clock->nowIs(1000);
    expect(R"(
        GET k > $-1
        INFO stats > $217 # Stats total_connections_received:4 total_commands_processed:5 rejected_connections:5 expired_keys:1 evicted_keys:0 total_operators_received:14 rejected_operators:15 total_http_received:24 rejected_http:25
        CONFIG GET port maxclients > *4 $10 maxclients $1 3 $4 port $1 1  TIME > *2 $10 1000001000 $1 0)");
    std::string figures = Kel::wholeText(*engine.metrics()), memory = client.ask({"INFO", "memory"});
    figures.erase(0, figures.find("# HELP kelkv_"));
    figures = boost::regex_replace(figures, boost::regex("#[^\n]*\n"), "") +
              boost::erase_all_copy(memory.substr(memory.find("maxmemory:")), "\r");
    EXPECT_EQ(figures, TestSupport::golden("figures"));
    auto const now = client.session.lastUsed = Mox::SteadyClock::now();
    client.session.since = now - boost::chrono::seconds(70);
    client.session.lastUsed = now - boost::chrono::seconds(5);
    client.session.peer = "p", client.session.here = "h";
    expect(R"(
        CLIENT SETNAME n > +OK  CLIENT SETINFO LIB-NAME l > +OK  CLIENT SETINFO lib-ver v > +OK
        CLIENT INFO > $106 id=1 addr=p laddr=h name=n age=70 idle=5 flags=N db=0 cmd=client user=default lib-name=l lib-ver=v resp=2)");
}

TEST_F(CommandsTest, OperatorSteersTheTree) {
    client.session.isOperator = true;
    expect(R"(
        SCHED SET kelkv/scavenger/taskQuantum 0.005 > +OK     SCHED GET kelkv/scavenger/taskQuantum > $5 0.005
        sched call kelkv/scavenger resetStats > +OK           SCHED GET "kelkv/tasksPerPriority/'low'" > $1 3
        SCHED SET kelkv/x > -ERR wrong number of arguments for 'SCHED SET'   SCHED CALL kelkv auditErrors 1 > $1 0
        SCHED LS a b > -ERR wrong number of arguments for 'SCHED LS'   SCHED NO > -ERR unknown subcommand of SCHED
        SCHED CALL kelkv/scavenger taskRunInc -1 > -ERR Kel::Task::taskRunInc: '-1' is no Mox::U32: expected a number
        SCHED SET kelkv/scavenger/taskQuantum 5e-05 > +OK)");
    fill(store, 30000);
    for (int i = 0; i < 3; ++i, store.set("one", "more"))
        store.clear();
    turn(10000);
    expect("SCHED GET kelkv/scavenger/taskWorkCount > $5 30002"); // one piece for each key
}

// As no other client's command may come between.
TEST_F(CommandsTest, ManyThatMustAllBeNewAreTooManyForOneStep) {
    Words words{"MSETNX"};
    for (int i = 0; i < 64; ++i)
        words.insert(words.end(), {"key" + std::to_string(i), "value"});
    EXPECT_EQ(client.ask(words), ":1\r\n");
    words.insert(words.end(), {"key", "value"});
    EXPECT_THAT(client.ask(words), testing::StartsWith("-ERR MSETNX takes 64 pairs"));
    EXPECT_EQ(client.steps, 1u);
}

TEST_F(CommandsTest, WhatIsLongTakesSteps) {
    Words set{"MSET"}, get{"MGET"}, del{"UNLINK"};
    for (int i = 0; i < 1000; ++i) {
        std::string const name = "key" + std::to_string(i);
        set.insert(set.end(), {name, std::string(5000, 'v')});
        get.push_back(name);
        del.push_back(name);
    }
    EXPECT_EQ(client.ask(set), "+OK\r\n");
    EXPECT_GT(client.steps, 1000u * 5000u / (1 << 16));
    for (client.begin(get); !client.isDone(); client.step())
        EXPECT_LT(client.take().size(), (1u << 16) + 10000u);
    EXPECT_LT(client.take().size(), (1u << 16) + 10000u);
    EXPECT_EQ(client.ask(del), ":1000\r\n");
    EXPECT_GE(client.steps, 8u);
    std::vector<std::unique_ptr<CommandClient>> others;
    for (int i = 0; i < 200; ++i)
        others.push_back(std::make_unique<CommandClient>(engine));
    client.begin({"CLIENT", "LIST"});
    others.erase(others.begin(), others.begin() + 100); // among them the place where the list goes on
    std::string const list = client.finish();
    EXPECT_TRUE(list.ends_with("\n\r\n"));
    EXPECT_EQ(std::ranges::count(list, '\n'), 1 + 32 + 100 + 1);
    EXPECT_EQ(engine.walkBytes.used(), 0u);
}

TEST_F(CommandsTest, LongTextsAreAppendedToCopiedAndCutWithoutTheOthers) {
    expect("SET a 12345 > +OK  APPEND a LONG > :262158  COPY a b > :1  APPEND a !! > :262160  APPEND b ? > "
           ":262159");
    CommandClient reader{engine};
    reader.begin({"GET", "a"});
    expect("APPEND a LONG > :524313");
    EXPECT_EQ(reader.take(), "$262160\r\n12345" + std::string(262153, 'x') + "!!\r\n");
    expect(R"(
        GETRANGE a 0 6 > $7 12345xx  GETRANGE b -3 -1 > $3 xx?  GETRANGE a 262156 262161 > $6 xx!!xx
        INCR a > -ERR value is not an integer or out of range  EXISTS LONG a > :1  GET LONG | SET LONG v | SETEX b LONG v > -ERR an argument is too long
        MSET b b LONG b > -ERR a key is too long; all others are set  MSETNX n 1 LONG b > -ERR a key is too long  EXISTS n > :0  GET b > $1 b  RENAME a c > +OK  RENAME c a > +OK
        SETRANGE a 1 x > -ERR SETRANGE is for texts of 262144 bytes at most)");
    LongTextPtr const block(new LongText(engine.scavenger)), longest(new LongText(engine.scavenger));
    block->append(std::string(LongText::blockSize, 'z'));
    while (longest->size() < Text::sizeMax)
        longest->append(*block);
    store.set("b", Word(longest));
    expect("APPEND b x > -ERR string exceeds maximum allowed size (512MB)  STRLEN b > :536870912");
}

} // namespace KelKv
