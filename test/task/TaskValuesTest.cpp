#include <mox/NboAttrLog.h>
#include <mox/Strep.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/TaskStat.h>

#include <support/Names.h>
#include <support/RandomRecords.h>
#include <support/Refusal.h>

#include <gtest/gtest.h>

#include <array>

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

/// The bytes of a value's log form: equal for two values when every bit of their fields is.
template <class T> String logForm(T const& value) {
    Ptr<NboAttrLog::Out> const out = NboAttrLog::Out::OutIs();
    out << value;
    return out->bytes();
}
template <class T> T fromText(String const& text) {
    T value{};
    strepToValue(text, &value);
    return value;
}
template <class T> T fromLog(String const& bytes) {
    T value{};
    NboAttrLog::bytesToValue(bytes, &value);
    return value;
}

template <class T> void expectRoundTrip(T const& value) {
    using Mox::valueToStrep;
    String const text = valueToStrep(value), log = logForm(value);
    ASSERT_NO_THROW(ASSERT_EQ(log, logForm(fromText<T>(text)))) << text;
    ASSERT_NO_THROW(ASSERT_EQ(log, logForm(fromLog<T>(log)))) << text;
}

/// The value is written so and read back.
template <class T> void expectForms(T const& value, std::string const& text, std::string const& log) {
    using Mox::valueToStrep;
    EXPECT_EQ(text, valueToStrep(value));
    EXPECT_EQ(log, logForm(value));
    expectRoundTrip(value);
}

TEST(ValueForms, AreToTheLetter) {
    std::string const bytes = "\1\2\3\4\5\6\7\x08", ones(8, '\xff');
    expectForms(TaskKey(0x0102030405060708), "72623859790382856", bytes);
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
    EXPECT_EQ("None", valueToStrep(record));
    EXPECT_EQ(TaskSchedulerQueueStats(), fromText<TaskSchedulerQueueStats>("None"));
    String const terminator = logForm(TaskPriority(TaskPriority::absolute));
    EXPECT_EQ(entries + terminator, logForm(record));
    EXPECT_EQ(record, fromLog<TaskSchedulerQueueStats>(spaced + terminator));
    EXPECT_THROW(fromLog<TaskSchedulerQueueStats>(logForm(record)), RangeException);
    TaskSchedulerQueueStats other = record;
    other.priorityIs(TaskSchedulerPriorityStats(TaskPriority::low));
    EXPECT_NE(record, other);
}

TEST(ValueForms, AttributesStandInAnyOrderAreLeftOutAndSpacedAndAStatussValueCounts) {
    TaskStat wanted;
    wanted.taskNameIs("n"), wanted.taskKeyIs(TaskKey(0xff)), wanted.taskDeadCountIs(3);
    wanted.taskPriorityIs(TaskPriority::PriorityEnumInstance(7));
    EXPECT_EQ(wanted, fromText<TaskStat>(
                          " Value\n(\t'Kel::TaskStat' ,\r\n ** { 'taskDeadCount' : 3 , 'taskKey': @0xff,\n"
                          "'taskPriority' : 'TaskPriority::PriorityEnum(7)', 'taskName' : \"n\" } )"));
    std::string const timer = "'taskTimer': True, ";
    EXPECT_EQ(0x11u, fromText<TaskStatus>(statusText(timer + "'taskSuspendedForTest': True")).value());
    EXPECT_EQ(6u,
              fromText<TaskStatus>(statusText(timer + "'value': 006, 'taskSuspendedForTest': True")).value());
}

template <class T> std::string refusalOf(std::string const& text) {
    return refusal([&] { fromText<T>(text); });
}

TEST(ValueForms, EveryErrorHasItsMessage) {
    auto const stat = refusalOf<TaskStat>;
    auto const status = refusalOf<TaskStatus>;
    std::tuple<std::string (*)(std::string const&), std::string, char const*> const rows[] = {
        {stat, "", "premature end of value type TaskStat"},
        {stat, "Value('Kel::TaskStat', ** {'taskStatus': Value('K", "premature end of value type TaskStatus"},
        {stat, statusText(""), "expected a Kel::TaskStat, not a Kel::TaskStat::TaskStatus"},
        {stat, statText("'taskRun': 1, 'run': 2"), "TaskStat has no such attribute: run"},
        {stat, statText("'taskRun': 1, 'taskKey': 2, 'taskRun': 1"),
         "TaskStat has this attribute already: taskRun"},
        {status, statusText("'value': 32"), "TaskStatus::value > 0x1f not allowed"},
        {refusalOf<TaskPriority>, "'Low'", "PriorityEnum has no such value: Low"},
        {refusalOf<TaskPriority>, "'TaskPriority::PriorityEnum(7)x'",
         "PriorityEnum has no such value: TaskPriority::PriorityEnum(7)x"},
        {refusalOf<TaskKey>, "@0x1 ", "junk at column 4 deserializing Kel::TaskKey"},
        {refusalOf<TaskSchedulerQueueStats>, "none", "expected None"},
    };
    for (auto const& [refused, text, message] : rows)
        EXPECT_EQ(message, refused(text)) << text;
    EXPECT_THROW(fromLog<TaskStatus>(logForm(U32{0x20})), RangeException);
}

TEST(ValueForms, EveryBitComesBackFromTextAndLogAndCutLogsAreRefused) {
    RandomRecords records;
    TaskStat stat;
    for (std::size_t i = 0; i < operations(10'000) && !HasFailure(); ++i)
        expectRoundTrip(stat = records.taskStat());
    String const log = logForm(stat);
    for (std::size_t length = 0; length < log.size(); ++length)
        EXPECT_THROW(fromLog<TaskStat>(log.substr(0, length)), RangeException) << length;
    EXPECT_THROW(fromLog<TaskStat>(log + "x"), RangeException);
}

TaskStat statOf(std::string const& attributes) { return fromText<TaskStat>(statText(attributes)); }

TEST(TaskStat, EachFieldCountsForEqualityAndMergesInItsWay) {
    std::array<std::string, 4> const fields[] = {
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
    EXPECT_DEATH(dead + TaskStat(),
                 testing::HasSubstr("taskName() == rhs.taskName(), source Task, function"));
}

TEST(TaskStat, StatusStringShowsWhatMattersMost) {
    for (auto const& [value, text] : {std::pair{"19", "Sn"}, {"20", "SN"}, {"31", "*N"}, {"4", " N"}}) {
        auto const status = statusText("'value': "s + value);
        EXPECT_EQ(text, statOf("'taskPriority': 'normal', 'taskStatus': " + status).taskStatusString());
    }
}

} // namespace
