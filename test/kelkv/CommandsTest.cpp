#include "EngineTest.h"

#include <kelkv/Commands.h>

namespace KelKv {

namespace {

struct CommandsTest : EngineTest {
    /// The reply, with a blank for each end of a line, and what is to follow.
    std::string ask(std::string_view line) {
        std::vector<std::string_view> words;
        boost::split(words, line, boost::is_any_of(" "));
        std::string reply;
        CommandContext context{engine, ReplyWriter(reply), isOperator};
        answer(context, words);
        if (context.next == CommandContext::Next::walk)
            reply += "walk " + context.pattern.value_or("to count");
        else if (context.next == CommandContext::Next::close)
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
    double number(std::string_view line) { return std::stod(ask(line).substr(1)); }

    bool isOperator = false;
};

} // namespace

TEST_F(CommandsTest, KeysAreWrittenAndRead) {
    expect(R"(
        GET a > $-1         SET a 1 > +OK    get a > $1 1               SET a 22 > +OK     GET a > $2 22
        MSET a 3 b 2 > +OK  DBSIZE > :2      MSET a 1 b > -ERR a key without a value       EXISTS a c b a > :3
        MGET a c b a > *4 $1 3 $-1 $1 2 $1 3  DEL a c a > :1  DBSIZE > :1  EXISTS a > :0   KEYS b* > walk b*
        DBSIZE exact > walk to count  DBSIZE x > -ERR syntax error  FLUSHALL ASYNC > +OK   EXISTS a b > :0)");
    engine.store.set("big", std::string(1 << 20, 'v'));
    engine.store.set("small", "v");
    EXPECT_TRUE(ask("MGET big big big big").starts_with("*4 $1048576 v"));
    EXPECT_EQ(ask("MGET big big big big small"), "-ERR the reply would be too large");
}

TEST_F(CommandsTest, CountersEndAtTheirMaximum) {
    expect(R"(
        INCR n > :1  INCR n > :2  GET n > $1 2  SET n -1 > +OK  INCR n > :0
        SET n -9223372036854775808 > +OK  INCR n > :-9223372036854775807  SET n 9223372036854775806 > +OK
        INCR n > :9223372036854775807  INCR n > -ERR the value is at its maximum  GET n > $19 9223372036854775807
        SET n 9223372036854775808 > +OK  INCR n > -ERR the value is no integer  GET n > $19 9223372036854775808
        SET n 1x > +OK  INCR n > -ERR the value is no integer  GET n > $2 1x)");
}

TEST_F(CommandsTest, KeysLiveAsLongAsTheyAreGiven) {
    expect(R"(
        TTL a > :-2   EXPIRE a 10 > :0  SET a 1 EX 10 > +OK  SET a 1 > +OK  TTL a > :-1  PTTL a > :-1  PERSIST a > :0
        EXPIRE a x > -ERR the time to live is no integer       SET b 1 EX x > -ERR the time to live is no integer
        SET b 1 EX 0 > -ERR the time to live is not positive   SET b 1 PX -1 > -ERR the time to live is not positive
        SET b 1 EX > -ERR syntax error   SET b 1 NX 10 > -ERR syntax error   EXISTS b > :0   set b 7 px 2000 > +OK
        TTL b > :2    INCR b > :8   TTL b > :2   PERSIST b > :1   TTL b > :-1   PEXPIRE b 0 > :1   EXISTS b > :0
        EXPIRE a -1 > :1   DBSIZE > :0   MSET s 1 ms 1 ever 1 > +OK   EXPIRE s 1000 > :1   PEXPIRE ms 1000000 > :1
        EXPIRE ever 9223372036854775807 > :1  SET long 1 EX 5000000000000000000 > +OK)");
    EXPECT_NEAR(number("TTL long"), 4.875e18, 1.3e17);
    EXPECT_NEAR(number("TTL s"), 975, 26);
    EXPECT_NEAR(number("PTTL s"), 1000 * number("TTL s"), 501);
    EXPECT_NEAR(number("TTL ms"), 975, 26);
    EXPECT_GT(number("TTL ever"), 8e18);
    EXPECT_EQ(ask("PTTL ever"), ":9223372036854775807");
}

TEST_F(CommandsTest, ClientProgramsAreAnsweredAsTheyBegin) {
    expect(R"(
        ping > +PONG  PING x > $1 x  ECHO x > $1 x  QUIT > +OK close  GET > -ERR wrong number of arguments for 'GET'
        PING x y > -ERR wrong number of arguments for 'PING'  CONFIG SET save > -ERR only CONFIG GET is known
        CONFIG GET save > *2 $4 save $0  CONFIG GET appendonly > *2 $10 appendonly $2 no  CONFIG GET x > *0
        CLIENT SETNAME x > +OK  CLIENT GETNAME > $-1  CLIENT KILL > -ERR unknown subcommand of CLIENT
        COMMAND DOCS > *0  COMMAND COUNT > :23  SCHED RESET > -ERR SCHED is for the operator's port
        info keyspace > $20 # Keyspace keys:0  INFO x > $0)");
    for (std::size_t const size : {16u, 17u, 65u})
        EXPECT_EQ(ask(std::string(size, 'x')),
                  "-ERR unknown command '" + std::string(std::min<std::size_t>(size, 64), 'x') + "'");
    EXPECT_EQ(ask("a\r\n\x1f+OK"), "-ERR unknown command 'a   +OK'");
    EXPECT_THAT(ask("INFO"),
                testing::ContainsRegex("# Server .*  # Clients .*  # Scheduler .*TotalRunCount"));
}

TEST_F(CommandsTest, OperatorSteersTheTree) {
    isOperator = true;
    expect(R"(
        SCHED SET kelkv/scavenger/taskQuantum 0.005 > +OK     SCHED GET kelkv/scavenger/taskQuantum > $5 0.005
        sched call kelkv/scavenger resetStats > +OK           SCHED GET kelkv/tasksPerPriority/'scavenge' > $1 1
        SCHED SET kelkv/x > -ERR wrong number of arguments for 'SCHED SET'   SCHED CALL kelkv auditErrors 1 > $1 0
        SCHED LS a b > -ERR wrong number of arguments for 'SCHED LS'   SCHED NO > -ERR unknown subcommand of SCHED
        SCHED CALL kelkv/scavenger taskRunInc -1 > -ERR Kel::Task::taskRunInc: '-1' is no Mox::U32: expected a number
        SCHED SET kelkv/scavenger/taskQuantum 5e-05 > +OK)");
    fill(store, 30000);
    store.clear();
    turn(10000);
    expect("SCHED GET kelkv/scavenger/taskWorkCount > $5 30000");
}

} // namespace KelKv
