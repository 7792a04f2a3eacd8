#include <task/ProcessId.h>
#include <task/TaskStat.h>

#include <support/RandomRecords.h>
#include <support/TextForms.h>

#include <sstream>

namespace {

using namespace TestSupport;
using Kel::ProcessId;
using Kel::TaskKey;
using Kel::TaskPriority;
using Kel::TaskStat;
using TaskStatus = Kel::TaskStat::TaskStatus;

std::string statText(std::string const& attributes) {
    return "Value('Kel::TaskStat', ** {" + attributes + "})";
}
std::string statusText(std::string const& attributes) {
    return "Value('Kel::TaskStat::TaskStatus', ** {" + attributes + "})";
}

template <class T> std::string streamed(T const& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

TEST(TextForm, IsToTheLetter) {
    EXPECT_EQ("18446744073709551615", Mox::valueToStrep(TaskKey::none()));
    EXPECT_EQ("18446744073709551615", Mox::valueToStrep(ProcessId(-1)));
    EXPECT_EQ("'normal'", Mox::valueToStrep(TaskPriority::normal));
    EXPECT_EQ("'oneBeyondLast'", Mox::valueToStrep(TaskPriority(TaskPriority::oneBeyondLast)));
    EXPECT_EQ("'TaskPriority::PriorityEnum(7)'", Mox::valueToStrep(TaskPriority::PriorityEnumInstance(7)));

    EXPECT_EQ("@0x200000000", TaskKey(0x200000000).toStrep());

    auto const stat = fromText<TaskStat>(
        statText("'taskName': 'it\\'s\\n', 'taskPriority': 'low', 'taskTotalRunTime': 0.25, 'taskStatus': " +
                 statusText("'taskOnRunQueue': True")));
    EXPECT_EQ("Value('Kel::TaskStat', ** {'taskName': 'it\\'s\\n', 'taskKey': 0, 'taskPriority': 'low', "
              "'taskRun': 0, "
              "'taskTotalRunTime': 0.25, 'taskWorkCount': 0, 'taskQuantumViolation500': 0, "
              "'taskQuantumViolation200': 0, 'taskRunTimeHighWaterMark': 0, 'taskLastSchedulingLatency': 0, "
              "'taskSchedulingLatencyHighWaterMark': 0, 'taskDeadCount': 0, 'taskStatus': "
              "Value('Kel::TaskStat::TaskStatus', ** {'taskTimer': False, 'taskTimerRunning': False, "
              "'taskOnRunQueue': True, 'taskCurrentlyRunning': False, 'taskSuspendedForTest': False, "
              "'value': 4})})",
              streamed(stat));
    EXPECT_EQ(streamed(stat), Mox::valueToStrep(stat));
}

TEST(LogForm, IsToTheLetter) {
    using namespace std::string_literals;
    auto stat = fromText<TaskStat>(
        statText("'taskName': 'n', 'taskKey': @0x0102030405060708, 'taskRun': 1, 'taskTotalRunTime': 1, "
                 "'taskWorkCount': 2, 'taskQuantumViolation500': 3, 'taskQuantumViolation200': 4, "
                 "'taskRunTimeHighWaterMark': 1, 'taskLastSchedulingLatency': -1, 'taskDeadCount': 5, "
                 "'taskStatus': " +
                 statusText("'value': 31")));
    stat.taskPriorityIs(TaskPriority::PriorityEnumInstance(~Mox::U32{1}));
    std::string const one = "\x3f\xf0\0\0\0\0\0\0"s;
    EXPECT_EQ("\0\0\0\1n\1\2\3\4\5\6\7\x08\xff\xff\xff\xfe\0\0\0\1"s + one +
                  "\0\0\0\0\0\0\0\2\0\0\0\3\0\0\0\4"s + one + "\xbf"s + one.substr(1) +
                  "\0\0\0\0\0\0\0\0\0\0\0\5\0\0\0\x1f"s,
              logForm(stat));
    EXPECT_EQ(std::string(8, '\xff'), logForm(ProcessId(-1)));
}

TEST(TextForm, EveryBitComesBackFromTextAndLog) {
    RandomRecords records;
    for (std::size_t i = 0; i < operations(20'000); ++i) {
        TaskStat const stat = records.taskStat();
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(stat));
        ASSERT_EQ(stat, fromText<TaskStat>(Mox::valueToStrep(stat)));
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(stat.taskKey()));
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(stat.taskPriority()));
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(ProcessId(records.number<Mox::S64>())));
        auto const number = stat.taskPriority().numericValue();
        ASSERT_EQ(number, fromText<TaskPriority::PriorityEnum>(Mox::valueToStrep(number)));
    }
    for (Mox::U32 value = 0; value <= TaskStatus::valueMax; ++value)
        expectRoundTrip(TaskStatus(value));
}

TEST(TextForm, AttributesStandInAnyOrderAreLeftOutAndSpaced) {
    TaskStat wanted;
    EXPECT_EQ(wanted, fromText<TaskStat>("Value('Kel::TaskStat', ** {})"));
    EXPECT_EQ(wanted, fromText<TaskStat>("Value('Kel::TaskStat',**{'taskStatus':"
                                         "Value('Kel::TaskStat::TaskStatus',**{})})"));
    wanted.taskNameIs("n");
    wanted.taskKeyIs(TaskKey(0xff));
    wanted.taskPriorityIs(TaskPriority::PriorityEnumInstance(7));
    wanted.taskDeadCountIs(3);
    EXPECT_EQ(wanted, fromText<TaskStat>(
                          " Value\n(\t'Kel::TaskStat' ,\r\n ** { 'taskDeadCount' : 3 , 'taskKey': @0xff,\n"
                          "'taskPriority' : 'TaskPriority::PriorityEnum(7)', 'taskName' : \"n\" } )"));
}

// The value counts, wherever it stands; without it, the flags do.
TEST(TextForm, TheValueOfAStatusOverridesItsFlags) {
    std::pair<char const*, Mox::U32> const cases[] = {
        {"'taskTimer': True, 'taskSuspendedForTest': True", 0x11},
        {"'taskTimer': True, 'value': 6", 6},
        {"'value': 6, 'taskTimer': True, 'taskOnRunQueue': False", 6},
        {"'value': 0, 'taskTimer': True", 0},
    };
    for (auto const& [attributes, value] : cases)
        EXPECT_EQ(value, fromText<TaskStatus>(statusText(attributes)).value()) << attributes;
}

TEST(TextForm, EveryErrorHasItsMessage) {
    std::pair<std::string, char const*> const statCases[] = {
        {"", "premature end of value type TaskStat"},
        {statText("'taskRun': 1, 'run': 2"), "TaskStat has no such attribute: run"},
        {statText("'taskStat\\x00': 2"), "TaskStat has no such attribute: taskStat"},
        {statText("'taskRun_': 2"), "TaskStat has no such attribute: taskRun_"},
        {statText("'taskRun': 1, 'taskRun': 1"), "TaskStat has this attribute already: taskRun"},
        {statText("'taskRun': 4294967296"), "number above 4294967295"},
        {statText("'taskRun': 1 'taskKey': 2"), "expected }"},
        {statText("'taskRun': 1,"), "expected a quoted string"},
        {statText("'taskPriority': 'Low'"), "PriorityEnum has no such value: Low"},
        {statText("'taskStatus': " + statusText("'taskRun': 1")),
         "TaskStatus has no such attribute: taskRun"},
        {statusText(""), "expected a Kel::TaskStat, not a Kel::TaskStat::TaskStatus"},
        {statText("") + " ", "junk at column 29 deserializing Kel::TaskStat"},
    };
    for (auto const& [text, message] : statCases)
        expectRefused<TaskStat>(text, message);
    for (std::string const value : {"32", "18446744073709551616", "32, 'taskTimer': True"})
        expectRefused<TaskStatus>(statusText("'value': " + value), "TaskStatus::value > 0x1f not allowed");
    expectRefused<TaskStatus>(statusText("'value': 1, 'value': 1"),
                              "TaskStatus has this attribute already: value");
    for (std::string const name :
         {"", "Normal", "TaskPriority::PriorityEnum(7", "TaskPriority::PriorityEnum()",
          "TaskPriority::PriorityEnum(7))", "TaskPriority::PriorityEnum(2147483648)"})
        expectRefused<TaskPriority>("'" + name + "'", "PriorityEnum has no such value: " + name);
    for (std::string const key : {"@", "@12", "@0x10000000000000000"})
        EXPECT_THROW(fromText<TaskKey>(key), Mox::RangeException) << key;
    expectRefused<TaskKey>("@0", "premature end of text");
    expectRefused<TaskKey>("@0x1 ", "junk at column 4 deserializing Kel::TaskKey");
    EXPECT_THROW(fromLog<TaskStatus>(logForm(Mox::U32{0x20})), Mox::RangeException);
}

TEST(TextForm, IsRefusedWhenCutAnywhere) {
    RandomRecords records;
    TaskStat stat = records.taskStat();
    stat.taskLastSchedulingLatencyIs(-Mox::endOfTime);
    Mox::String const text = Mox::valueToStrep(stat);
    std::size_t const status = text.find("Value", 1), statusEnd = text.size() - 2;
    expectCutTextsRefused<TaskStat>(text, 0, status + 1, "TaskStat");
    expectCutTextsRefused<TaskStat>(text, status + 1, statusEnd, "TaskStatus");
    expectCutTextsRefused<TaskStat>(text, statusEnd, text.size(), "TaskStat");
    expectCutLogsRefused(stat);
    expectCutLogsRefused(stat.taskKey());
    expectCutLogsRefused(stat.taskPriority());
}

} // namespace
