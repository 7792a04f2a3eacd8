#include "CommandClient.h"
#include "EngineTest.h"

#include <boost/algorithm/string/regex.hpp>

namespace KelKv {

namespace {

struct CommandsTest : EngineTest {
    CommandsTest() {
        engine.calendarTime = [] { return 1e9 + Mox::now(); };
    }

    std::string ask(std::vector<Word> const& words) {
        client.steps = 0;
        for (client.begin(words); !client.isDone();)
            client.step();
        return client.take();
    }
    /// The reply, with a blank for each end of a line, and what is to follow.
    std::string ask(std::string_view line) {
        std::vector<std::string> words;
        boost::split(words, line, boost::is_any_of(" "));
        std::ranges::replace(words, std::string("\"\""), std::string());
        std::string reply = ask(std::vector<Word>(words.begin(), words.end()));
        if (client.next == CommandContext::Next::walk)
            reply += "walk " + client.pattern.value_or("to count");
        else if (client.next == CommandContext::Next::close)
            reply += "close";
        boost::replace_all(reply, "\r\n", " ");
        return boost::trim_right_copy(reply);
    }
    /// Requests and their replies behind " > ", with two blanks or an end of a line between them.
    void expect(std::string const& script) {
        for (std::string const& row : rowsOf(script)) {
            std::size_t const mark = row.find(" > ");
            EXPECT_EQ(ask(row.substr(0, mark)), row.substr(mark + 3)) << row;
        }
    }

    CommandClient client{engine};
};

} // namespace

// What a model would only say again is in CommandsModelTest.
TEST_F(CommandsTest, NumbersThatAreNoneOrTooLargeAreRefused) {
    expect(R"(
        SET n 9223372036854775806 > +OK  INCR n > :9223372036854775807  INCRBY n -1 > :9223372036854775806
        INCRBY n 2 > -ERR increment or decrement would overflow  DECRBY n -9223372036854775808 > -ERR decrement would overflow
        DECRBY none -9223372036854775808 > -ERR decrement would overflow   GET n > $19 9223372036854775806
        SET n 9223372036854775808 > +OK  INCR n > -ERR value is not an integer or out of range
        SET n 07 > +OK  DECR n > -ERR value is not an integer or out of range  SET n 1x > +OK  DECR n > -ERR value is not an integer or out of range  INCRBY m -0 > -ERR value is not an integer or out of range  INCRBY m 1.5 > -ERR value is not an integer or out of range
        SET t xyz > +OK  GETRANGE t -1 -2 > $0  GETRANGE t -5 -10 > $0  GETRANGE t -9 -8 > $0  GETRANGE t -9 -3 > $1 x  GETRANGE t -2 9 > $2 yz
        INCRBYFLOAT n 1 > -ERR value is not a valid float  INCRBYFLOAT f 0.1 > $3 0.1  INCRBYFLOAT f 2e-1 > $3 0.3  INCRBYFLOAT f -0.3 > $1 0
        INCRBYFLOAT f nan > -ERR value is not a valid float  INCRBYFLOAT f inf > -ERR increment would produce NaN or Infinity
        SET f 1e4932 > +OK  INCRBYFLOAT f 1e4932 > -ERR increment would produce NaN or Infinity
        SETRANGE r -1 x > -ERR offset is out of range  SETRANGE r 536870912 x > -ERR string exceeds maximum allowed size (512MB)
        SETRANGE r 262144 x > -ERR SETRANGE is for texts of 262144 bytes at most  SETRANGE r 9223372036854775807 "" > :0  EXISTS r > :0
        SCAN x > -ERR invalid cursor  SCAN -1 > -ERR invalid cursor  SCAN 0 COUNT 0 > -ERR syntax error  SCAN 0 MATCH > -ERR syntax error
        SCAN 18446744073709551615 > *2 $1 0 *0  SCAN 9007199254740992 > *2 $1 0 *0  SCAN 0 TYPE list > *2 $1 0 *0)");
}

TEST_F(CommandsTest, LivesBeyondTheBoundAreRefusedAndLeaveTheKeyAlone) {
    expect("SET k v > +OK");
    for (char const* number : {"9223370399119966", "9223372036854776", "18446744073709561",
                               "-9223372036854776", "9223372036854775807", "4611686018427388"})
        EXPECT_EQ(ask(std::string("EXPIRE k ") + number), "-ERR invalid expire time in 'expire' command");
    for (char const* request :
         {"set k v EX 0", "set k v PX -1", "set k v EX 10000000000000000", "set k v EXAT -1", "setex k -10 v",
          "psetex k 0 v", "getex k EX 0", "getex k PXAT 0"})
        EXPECT_EQ(ask(request), "-ERR invalid expire time in '" +
                                    std::string(request, std::strchr(request, ' ')) + "' command");
    expect(R"(
        PEXPIRE k 9223372036854770000 > -ERR invalid expire time in 'pexpire' command   TTL k > :-1
        EXPIRE k "" > -ERR value is not an integer or out of range   SET k v EX x > -ERR value is not an integer or out of range
        SET k v EX > -ERR syntax error  SET k v EX 1 PX 1 > -ERR syntax error  SET k v EX 1 KEEPTTL > -ERR syntax error
        SET k v NX XX > -ERR syntax error  SET k v AB > -ERR syntax error  GETEX k PERSIST EX > -ERR syntax error
        EXPIRE k 1 NX GT > -ERR NX and XX, GT or LT options at the same time are not compatible
        EXPIRE k 1 GT LT > -ERR GT and LT options at the same time are not compatible  EXPIRE k 1 AB > -ERR Unsupported option AB
        PTTL k > :-1  EXPIRE k 4611686018427387 > :1  TTL k > :4611686018427387  EXPIRETIME k > :4611687018427387
        PEXPIREAT k 9223372036854775807 > :1  TTL k > :9223371036854776  PEXPIREAT k -9223372036854775808 > :1  EXISTS k > :0
        SET k v PXAT 1 > +OK  GET k > $-1  SET k v EX 50 > +OK  TTL k > :50  PEXPIRE k 50499 > :1  TTL k > :50  PEXPIRE k 50500 > :1  TTL k > :51)");
}

TEST_F(CommandsTest, ClientProgramsAreAnsweredAsTheyBegin) {
    expect(R"(
        ping > +PONG  PING x > $1 x  ECHO x > $1 x  QUIT > +OK close  GET > -ERR wrong number of arguments for 'get' command
        CONFIG SET save x > -ERR CONFIG SET is not supported: settings are options that the daemon starts with
        CONFIG GET save APPEND* > *4 $10 appendonly $2 no $4 save $0  CONFIG GET x > *0  SELECT 0 > +OK  SELECT x > -ERR value is not an integer or out of range
        CLIENT GETNAME > $-1  CLIENT SETNAME x > +OK  CLIENT GETNAME > $1 x  CLIENT ID > :1  CLIENT SETINFO lib-name y > +OK
        CLIENT KILL > -ERR unknown subcommand 'KILL' of 'client'  CLIENT SETNAME > -ERR wrong number of arguments for 'client|setname' command
        HELLO 4 > -NOPROTO unsupported protocol version  HELLO 3 SETNAME z AUTH a b > -ERR AUTH is not supported: nobody has a password
        CLIENT GETNAME > $1 x  HELLO 3 SETNAME z > %7 $6 server $5 kelkv $7 version $5 7.0.0 $5 proto :3 $2 id :1 $4 mode $10 standalone $4 role $6 master $7 modules *0
        CLIENT GETNAME > $1 z  GET none > _  CONFIG GET save > %1 $4 save $0  RESET > +RESET  CLIENT GETNAME > $-1
        COMMAND INFO mset no ping > *3 *6 $4 mset :-3 *0 :1 :-1 :2 $-1 *6 $4 ping :-1 *0 :0 :0 :0  COMMAND DOCS get no > *2 $3 get *2 $7 summary $15 see man 1 kelkv
        SCHED RESET > -ERR SCHED is for the operator's port  INFO none > $0  DBSIZE exact > walk to count  KEYS b* > walk b*
        DBSIZE x > -ERR syntax error  FLUSHALL WORD > -ERR syntax error  FLUSHDB async > +OK  RANDOMKEY > $-1  RENAME no x > -ERR no such key
        CLIENT LIST TYPE PubSub > $0  CLIENT LIST TYPE foo > -ERR Unknown client type 'foo'  CLIENT LIST ID > -ERR syntax error
        COPY a b DB 1 > -ERR DB index is out of range: there is one, 0  COPY a b DB x > -ERR value is not an integer or out of range
        COPY a a > -ERR source and destination objects are the same  MSET a 1 b > -ERR wrong number of arguments for 'mset' command
        SET a 1 EX 9 > +OK  SET b 1 > +OK  info keyspace > $44 # Keyspace db0:keys=2,expires=1,avg_ttl=0)");
    EXPECT_THAT(ask("MULTI"), testing::StartsWith("-ERR MULTI is not supported"));
    for (char const* request : {"CLIENT SETNAME ", "CLIENT SETINFO lib-ver ", "HELLO 3 SETNAME "}) {
        EXPECT_NE(ask(request + std::string(256, 'x'))[0], '-');
        EXPECT_EQ(ask(request + std::string(257, 'x')), "-ERR a name has no more than 256 bytes");
    }
    for (std::size_t const size : {16u, 17u, 65u})
        EXPECT_EQ(ask(std::string(size, 'x')),
                  "-ERR unknown command '" + std::string(std::min<std::size_t>(size, 64), 'x') + "'");
    EXPECT_EQ(ask("a\r\n\x1f+OK"), "-ERR unknown command 'a   +OK'");
    EXPECT_THAT(ask("INFO"),
                testing::ContainsRegex("# Server .*connected_clients:.*loading:0 .*role:master .*db0:keys"));
    EXPECT_THAT(ask("INFO everything"), testing::ContainsRegex("# Server .*# Scheduler .*TotalRunCount"));
    EXPECT_EQ(ask("COMMAND COUNT").substr(1), ask("COMMAND").substr(1, 2));
}

TEST_F(CommandsTest, OperatorSteersTheTree) {
    client.session.isOperator = true;
    expect(R"(
        SCHED SET kelkv/scavenger/taskQuantum 0.005 > +OK     SCHED GET kelkv/scavenger/taskQuantum > $5 0.005
        sched call kelkv/scavenger resetStats > +OK           SCHED GET kelkv/tasksPerPriority/'low' > $1 3
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

TEST_F(CommandsTest, WhatIsLongTakesSteps) {
    std::vector<std::string> names;
    for (int i = 0; i < 1000; ++i)
        names.push_back("key" + std::to_string(i));
    std::vector<Word> set{std::string_view("MSET")}, get{std::string_view("MGET")},
        del{std::string_view("UNLINK")};
    std::string const value(5000, 'v');
    for (std::string_view const name : names) {
        set.insert(set.end(), {name, std::string_view(value)});
        get.emplace_back(name);
        del.emplace_back(name);
    }
    EXPECT_EQ(ask(set), "+OK\r\n");
    EXPECT_GT(client.steps, 1000u * 5000u / (1 << 16));
    client.begin(get);
    EXPECT_LT(client.take().size(), (1u << 16) + 10000u);
    while (!client.isDone()) {
        client.step();
        EXPECT_LT(client.take().size(), (1u << 16) + 10000u);
    }
    EXPECT_EQ(ask(del), ":1000\r\n");
    EXPECT_GE(client.steps, 8u);
    std::vector<std::unique_ptr<CommandClient>> others;
    for (int i = 0; i < 200; ++i)
        others.push_back(std::make_unique<CommandClient>(engine));
    client.begin({std::string_view("CLIENT"), std::string_view("LIST")});
    others.erase(others.begin(), others.begin() + 100); // among them the place where the list goes on
    while (!client.isDone())
        client.step();
    std::string const list = client.take();
    EXPECT_TRUE(list.ends_with("\n\r\n"));
    EXPECT_EQ(std::ranges::count(list, '\n'), 1 + 32 + 100 + 1);
    EXPECT_EQ(engine.walkBytes.used(), 0u);
}

TEST_F(CommandsTest, LongTextsAreAppendedToCopiedAndCutWithoutTheOthers) {
    auto const longWord = [&](std::size_t size, char c) {
        LongTextPtr const text(new LongText(engine.scavenger));
        text->append(std::string(size, c));
        return Word(text);
    };
    std::string_view const append = "APPEND", a = "a", b = "b";
    std::size_t const size = Limits::wordInOnePiece + 1;
    expect("SET a 12345 > +OK");
    EXPECT_EQ(ask({append, a, longWord(size, 'x')}), ":" + std::to_string(size + 5) + "\r\n");
    expect("COPY a b > :1  APPEND a !! > :1048584  APPEND b ? > :1048583");
    CommandClient reader{engine};
    reader.begin({std::string_view("GET"), a});
    EXPECT_EQ(ask({append, a, longWord(size, 'y')}), ":" + std::to_string(2 * size + 7) + "\r\n");
    EXPECT_EQ(reader.take(), "$1048584\r\n12345" + std::string(size, 'x') + "!!\r\n");
    expect("GETRANGE a 0 6 > $7 12345xx  GETRANGE b -3 -1 > $3 xx?  GETRANGE a 1048580 1048585 > $6 xx!!yy  "
           "INCR a > -ERR value is not an integer or out of range");
    EXPECT_EQ(ask({std::string_view("EXISTS"), longWord(size, 'k'), a}), ":1\r\n");
    EXPECT_EQ(ask({std::string_view("GET"), longWord(size, 'k')}), "-ERR an argument is too long\r\n");
    EXPECT_EQ(ask({std::string_view("MSET"), b, b, longWord(size, 'k'), b}),
              "-ERR a key is too long; all others are set\r\n");
    expect("GET b > $1 b  RENAME a c > +OK  RENAME c a > +OK  SETRANGE a 1 x > -ERR SETRANGE is for texts of "
           "262144 bytes at most");
    LongTextPtr const longest(new LongText(engine.scavenger));
    for (Word const part = longWord(Limits::wordInOnePiece, 'z'); longest->size() < Text::sizeMax;)
        longest->append(*part.text);
    EXPECT_EQ(ask({std::string_view("SET"), b, Word(longest)}), "+OK\r\n");
    expect("APPEND b x > -ERR string exceeds maximum allowed size (512MB)  STRLEN b > :536870912");
}

} // namespace KelKv
