#include <mox/HashMap.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>
#include <task/TaskStat.h>
#include <task/TaskTime.h>

#include <support/Python.h>
#include <support/RandomRecords.h>
#include <support/TextForms.h>

#include <boost/algorithm/hex.hpp>

namespace {

using namespace TestSupport;
using namespace std::string_literals;
using TaskStatus = TaskStat::TaskStatus;

std::string statText(std::string const& attributes) {
    return "Value('Kel::TaskStat', ** {" + attributes + "})";
}
std::string statusText(std::string const& attributes) {
    return "Value('Kel::TaskStat::TaskStatus', ** {" + attributes + "})";
}

/// The value is written so, streamed so where it can be, and read back.
template <class T> void expectForms(T const& value, std::string const& text, std::string const& log) {
    using Mox::valueToStrep;
    EXPECT_EQ(text, valueToStrep(value));
    if (text.starts_with("Value")) {
        EXPECT_EQ(text, testing::PrintToString(value));
    }
    EXPECT_EQ(log, logForm(value));
    expectRoundTrip(value);
}

TEST(ValueForms, AreToTheLetter) {
    std::string const bytes = "\1\2\3\4\5\6\7\x08", ones(8, '\xff');
    expectForms(TaskKey(0x0102030405060708), "72623859790382856", bytes);
    expectForms(ProcessId(-1), "18446744073709551615", ones);
    expectForms(TaskPriority(TaskPriority::oneBeyondLast), "'oneBeyondLast'", "\0\0\0\5"s);
    expectForms(TaskPriority(TaskPriority::PriorityEnumInstance(7)), "'TaskPriority::PriorityEnum(7)'",
                "\0\0\0\7"s);
    EXPECT_EQ("@0x200000000", TaskKey(0x200000000).toStrep());

    TaskSchedulerPriorityStats stats(TaskPriority::high);
    stats.runnableTasksIs(1), stats.idleTasksIs(2), stats.deadTasksIs(3), stats.totalRunCountIs(~U64{0});
    expectForms(stats,
                "Value('Kel::TaskSchedulerPriorityStats', ** {'taskPriority': 'high', 'runnableTasks': 1, "
                "'idleTasks': 2, 'deadTasks': 3, 'totalRunCount': 18446744073709551615})",
                "\0\0\0\1\0\0\0\1\0\0\0\2\0\0\0\3"s + ones);

    auto stat = fromText<TaskStat>(
        statText("'taskName': 'it\\'s\\n', 'taskKey': @0x0102030405060708, 'taskRun': 1, 'taskTotalRunTime': "
                 "0.25, 'taskWorkCount': 2, 'taskQuantumViolation500': 3, 'taskQuantumViolation200': 4, "
                 "'taskRunTimeHighWaterMark': 1, 'taskLastSchedulingLatency': -1, 'taskDeadCount': 5, "
                 "'taskStatus': " +
                 statusText("'taskOnRunQueue': True, 'taskTimer': True")));
    stat.taskPriorityIs(TaskPriority::PriorityEnumInstance(~U32{1}));
    std::string const one = "\xf0\0\0\0\0\0\0"s;
    expectForms(stat,
                statText("'taskName': 'it\\'s\\n', 'taskKey': 72623859790382856, 'taskPriority': "
                         "'TaskPriority::PriorityEnum(-2)', 'taskRun': 1, 'taskTotalRunTime': 0.25, "
                         "'taskWorkCount': 2, 'taskQuantumViolation500': 3, 'taskQuantumViolation200': 4, "
                         "'taskRunTimeHighWaterMark': 1, 'taskLastSchedulingLatency': -1, "
                         "'taskSchedulingLatencyHighWaterMark': 0, 'taskDeadCount': 5, 'taskStatus': " +
                         statusText("'taskTimer': True, 'taskTimerRunning': False, 'taskOnRunQueue': True, "
                                    "'taskCurrentlyRunning': False, 'taskSuspendedForTest': False, "
                                    "'value': 5")),
                "\0\0\0\5it's\n"s + bytes + "\xff\xff\xff\xfe\0\0\0\1\x3f\xd0\0\0\0\0\0\0"s +
                    "\0\0\0\0\0\0\0\2\0\0\0\3\0\0\0\4\x3f"s + one + "\xbf" + one +
                    "\0\0\0\0\0\0\0\0\0\0\0\5\0\0\0\5"s);
}

// In the log the two do not fit, and that is so: the writer writes plain entries, the reader wants a priority
// before each.
TEST(ValueForms, OfQueueStatsAreNoneAndWriterAndReaderOfTheLogEachKeepTheirOwn) {
    TaskSchedulerQueueStats record;
    String entries, spaced;
    for (U32 p = 0; p < 5; ++p) {
        TaskSchedulerPriorityStats entry(TaskPriority::PriorityEnumInstance(p));
        entry.runnableTasksIs(10 + p);
        record.priorityIs(entry);
        entries += logForm(entry);
        spaced += logForm(TaskPriority(TaskPriority::scavenge)) + logForm(entry); // which one does not matter
    }
    EXPECT_EQ("None", testing::PrintToString(record));
    EXPECT_EQ("None", valueToStrep(record));
    EXPECT_EQ(TaskSchedulerQueueStats(), fromText<TaskSchedulerQueueStats>("None"));
    String const terminator = logForm(TaskPriority(TaskPriority::absolute));
    EXPECT_EQ(entries + terminator, logForm(record));
    EXPECT_EQ(record, fromLog<TaskSchedulerQueueStats>(spaced + terminator));
    for (String const& refused : {spaced, logForm(record)})
        EXPECT_THROW(fromLog<TaskSchedulerQueueStats>(refused), RangeException);
}

TEST(ValueForms, AttributesStandInAnyOrderAreLeftOutAndSpacedAndAStatussValueCounts) {
    TaskStat wanted;
    EXPECT_EQ(wanted, fromText<TaskStat>(statText("")));
    EXPECT_EQ(wanted, fromText<TaskStat>("Value('Kel::TaskStat',**{'taskStatus':"
                                         "Value('Kel::TaskStat::TaskStatus',**{})})"));
    wanted.taskNameIs("n"), wanted.taskKeyIs(TaskKey(0xff)), wanted.taskDeadCountIs(3);
    wanted.taskPriorityIs(TaskPriority::PriorityEnumInstance(7));
    EXPECT_EQ(wanted, fromText<TaskStat>(
                          " Value\n(\t'Kel::TaskStat' ,\r\n ** { 'taskDeadCount' : 3 , 'taskKey': @0xff,\n"
                          "'taskPriority' : 'TaskPriority::PriorityEnum(7)', 'taskName' : \"n\" } )"));
    std::pair<char const*, U32> const statuses[] = {
        {"'taskTimer': True, 'taskSuspendedForTest': True", 0x11},
        {"'taskTimer': True, 'value': 6", 6},
        {"'value': 6, 'taskTimer': True, 'taskOnRunQueue': False", 6},
        {"'value': 0, 'taskTimer': True", 0},
    };
    for (auto const& [attributes, value] : statuses)
        EXPECT_EQ(value, fromText<TaskStatus>(statusText(attributes)).value()) << attributes;
}

/// Each text, put between what stands around it, with its message.
template <class T>
void expectAllRefused(std::vector<std::pair<std::string, std::string>> const& cases,
                      std::string const& before = "", std::string const& behind = "") {
    for (auto const& [text, message] : cases)
        expectRefused<T>(before + text + behind, message);
}

TEST(ValueForms, EveryErrorHasItsMessage) {
    expectAllRefused<TaskStat>(
        {{"'taskRun': 1, 'run': 2", "TaskStat has no such attribute: run"},
         {"'taskStat\\x00': 2", "TaskStat has no such attribute: taskStat"},
         {"'taskRun_': 2", "TaskStat has no such attribute: taskRun_"},
         {"'taskRun': 1, 'taskRun': 1", "TaskStat has this attribute already: taskRun"},
         {"'taskRun': 4294967296", "number above 4294967295"},
         {"'taskRun': 1 'taskKey': 2", "expected }"},
         {"'taskRun': 1,", "expected a quoted string"},
         {"'taskPriority': 'Low'", "PriorityEnum has no such value: Low"},
         {"'taskStatus': " + statusText("'taskRun': 1"), "TaskStatus has no such attribute: taskRun"}},
        "Value('Kel::TaskStat', ** {", "})");
    expectAllRefused<TaskStat>({{"", "premature end of value type TaskStat"},
                                {statusText(""), "expected a Kel::TaskStat, not a Kel::TaskStat::TaskStatus"},
                                {statText("") + " ", "junk at column 29 deserializing Kel::TaskStat"}});
    char const* const above = "TaskStatus::value > 0x1f not allowed";
    expectAllRefused<TaskStatus>({{"32", above},
                                  {"18446744073709551616, 'taskTimer': True", above},
                                  {"1, 'value': 1", "TaskStatus has this attribute already: value"}},
                                 "Value('Kel::TaskStat::TaskStatus', ** {'value': ", "})");
    for (std::string const name :
         {"", "Normal", "TaskPriority::PriorityEnum(7", "TaskPriority::PriorityEnum()",
          "TaskPriority::PriorityEnum(7))", "TaskPriority::PriorityEnum(2147483648)"})
        expectRefused<TaskPriority>("'" + name + "'", "PriorityEnum has no such value: " + name);
    expectAllRefused<TaskKey>(
        {{"@0", "premature end of text"}, {"@0x1 ", "junk at column 4 deserializing Kel::TaskKey"}});
    expectRefused<TaskSchedulerPriorityStats>("Value('Kel::TaskSchedulerPriorityStats', ** {'idle': 1})",
                                              "TaskSchedulerPriorityStats has no such attribute: idle");
    expectAllRefused<TaskSchedulerQueueStats>(
        {{"none", "expected None"},
         {"Non", "premature end of text"},
         {"None ", "junk at column 4 deserializing Kel::TaskSchedulerQueueStats"}});
    for (std::string const key : {"@", "@12", "@0x10000000000000000"})
        EXPECT_THROW(fromText<TaskKey>(key), RangeException) << key;
    EXPECT_THROW(fromLog<TaskStatus>(logForm(U32{0x20})), RangeException);
}

TEST(ValueForms, AreRefusedWhenCutAnywhere) {
    RandomRecords records;
    TaskStat stat = records.taskStat();
    stat.taskLastSchedulingLatencyIs(-endOfTime);
    String const text = valueToStrep(stat);
    std::size_t const status = text.find("Value", 1), statusEnd = text.size() - 2;
    expectCutTextsRefused<TaskStat>(text, 0, status + 1, "TaskStat");
    expectCutTextsRefused<TaskStat>(text, status + 1, statusEnd, "TaskStatus");
    expectCutTextsRefused<TaskStat>(text, statusEnd, text.size(), "TaskStat");
    expectCutLogsRefused(stat);
    expectCutLogsRefused(stat.taskKey());
    expectCutLogsRefused(stat.taskPriority());
    expectCutLogsRefused(records.priorityStats());
}

/// Values that come back from their texts and logs, and what Python is to read in the texts.
struct RoundTrips {
    template <class T> void add(char const* type, T const& value) {
        using Mox::valueToStrep;
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(value));
        input += type + (' ' + boost::algorithm::hex(std::string(valueToStrep(value)))) + '\n';
        logs.push_back(boost::algorithm::hex_lower(std::string(logForm(value))));
    }
    std::string input;
    std::vector<std::string> logs;
};

TEST(ValueForms, EveryBitComesBackFromTextAndLogAndPythonReadsTheSame) {
    RandomRecords records;
    RoundTrips all;
    for (std::size_t i = 0; i < operations(3'000) && !HasFailure(); ++i) {
        TaskStat const stat = records.taskStat();
        all.add("Kel::TaskStat", stat);
        ASSERT_EQ(stat, fromText<TaskStat>(valueToStrep(stat)));
        all.add("Kel::TaskSchedulerPriorityStats", records.priorityStats());
        all.add("d", records.seconds());
        all.add("Q", stat.taskKey());
        all.add("Q", ProcessId(records.number<S64>()));
        all.add("priority", stat.taskPriority());
        auto const number = stat.taskPriority().numericValue();
        ASSERT_EQ(number, fromText<TaskPriority::PriorityEnum>(valueToStrep(number)));
    }
    for (U32 value = 0; value <= TaskStatus::valueMax; ++value)
        all.add("Kel::TaskStat::TaskStatus", TaskStatus(value));
    for (int byte = 0; byte < 256; ++byte)
        for (char const* const around : {"", "a", "\\", "0", "'"})
            all.add("string", String(around + std::string(1, static_cast<char>(byte)) + around));
    EXPECT_TRUE(python("task/log_form_of_text.py", all.input) == all.logs);
}

TEST(Hashing, TimesAreKeysOfMaps) {
    HashMap<TaskTimeStamp, S64> map;
    auto const time = [](S64 i) { return TaskTimeStamp(Nanoseconds(i << 31)); };
    for (S64 i = -500; i < 500; ++i) // some differ in the upper half only
        map.valueIs(time(i), i);
    EXPECT_EQ(-77, *map.find(time(-77)));
}

TaskStat statOf(std::string const& attributes) { return fromText<TaskStat>(statText(attributes)); }

TEST(TaskStat, EachFieldCountsForEqualityAndMergesInItsWay) {
    struct {
        std::string name, left, right, sum;
    } const fields[] = {
        {"taskName", "'n'", "'n'", "'n'"},
        {"taskKey", "1", "2", "1"},
        {"taskPriority", "'high'", "'low'", "'high'"},
        {"taskRun", "4294967294", "10", "8"},
        {"taskTotalRunTime", "1.25", "0.5", "1.75"},
        {"taskWorkCount", "4294967295", "1", "4294967296"},
        {"taskQuantumViolation500", "4", "3", "7"},
        {"taskQuantumViolation200", "6", "5", "11"},
        {"taskRunTimeHighWaterMark", "2", "3", "3"},
        {"taskLastSchedulingLatency", "2", "1", "1"},
        {"taskSchedulingLatencyHighWaterMark", "9", "8", "9"},
        {"taskDeadCount", "5", "7", "6"},
        {"taskStatus", statusText("'value': 8"), statusText("'value': 4"), statusText("'value': 4")},
    };
    std::string left, right, sum;
    for (auto const& [name, ofLeft, ofRight, ofSum] : fields) {
        std::string const before = (left.empty() ? "'" : ", '") + name + "': ";
        left += before + ofLeft, right += before + ofRight, sum += before + ofSum;
        EXPECT_NE(TaskStat(), statOf("'" + name + "': " + ofLeft)) << name;
    }
    EXPECT_EQ(statOf(sum), statOf(left) + statOf(right));
}

TEST(TaskStat, EmptyOneTakesNameAndPriorityButNoKey) {
    TaskStat const dead = statOf("'taskName': 'n', 'taskKey': 5, 'taskPriority': 'low', 'taskRun': 3");
    EXPECT_EQ(statOf("'taskName': 'n', 'taskPriority': 'low', 'taskRun': 6, 'taskDeadCount': 2"),
              TaskStat() + dead + dead);
    for (TaskStat const& other : {TaskStat(), statOf("'taskName': 'm'")})
        EXPECT_DEATH(dead + other, testing::HasSubstr("taskName() == rhs.taskName(), source Task, function"));
}

TEST(TaskStat, StatusStringShowsWhatMattersMost) {
    struct {
        U32 status;
        TaskPriority::PriorityEnum priority;
        char const* text;
    } const cases[] = {
        {0x00, TaskPriority::high, " h"},          {0x04, TaskPriority::high, " H"},
        {0x01, TaskPriority::low, "tl"},           {0x07, TaskPriority::low, "TL"},
        {0x02, TaskPriority::absolute, " a"},      {0x1f, TaskPriority::scavenge, "*S"},
        {0x13, TaskPriority::oneBeyondLast, "S-"}, {0x14, TaskPriority::normal, "SN"},
    };
    for (auto const& c : cases) {
        TaskStat stat;
        stat.taskStatusIs(TaskStat::TaskStatus(c.status));
        stat.taskPriorityIs(c.priority);
        EXPECT_EQ(c.text, stat.taskStatusString());
    }
}

} // namespace
