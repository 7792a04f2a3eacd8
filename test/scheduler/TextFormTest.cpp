#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>

#include <support/Python.h>
#include <support/RandomRecords.h>
#include <support/TextForms.h>

#include <boost/algorithm/hex.hpp>

namespace {

using namespace TestSupport;
using Kel::TaskPriority;
using Kel::TaskSchedulerPriorityStats;
using Kel::TaskSchedulerQueueStats;
using TaskStatus = Kel::TaskStat::TaskStatus;

TEST(PriorityStatsTextForm, IsToTheLetter) {
    TaskSchedulerPriorityStats record(TaskPriority::high);
    record.runnableTasksIs(1), record.idleTasksIs(2), record.deadTasksIs(3);
    record.totalRunCountIs(~Mox::U64{0});
    EXPECT_EQ("Value('Kel::TaskSchedulerPriorityStats', ** {'taskPriority': 'high', 'runnableTasks': 1, "
              "'idleTasks': 2, 'deadTasks': 3, 'totalRunCount': 18446744073709551615})",
              testing::PrintToString(record));
    EXPECT_EQ(testing::PrintToString(record), Mox::valueToStrep(record));
    EXPECT_EQ(std::string("\0\0\0\1\0\0\0\1\0\0\0\2\0\0\0\3\xff\xff\xff\xff\xff\xff\xff\xff", 24),
              logForm(record));
}

TEST(PriorityStatsTextForm, ComesBackFromTextAndLogAndIsRefusedWithItsName) {
    RandomRecords records;
    for (std::size_t i = 0; i < operations(2'000); ++i)
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(records.priorityStats()));
    expectRefused<TaskSchedulerPriorityStats>("Value('Kel::TaskSchedulerPriorityStats', ** {'idle': 1})",
                                              "TaskSchedulerPriorityStats has no such attribute: idle");
    expectCutLogsRefused(records.priorityStats());
}

// In the log the two do not fit, and that is so: the writer writes plain entries, the reader wants a priority
// before each.
TEST(QueueStatsForms, TextIsNoneAndWriterAndReaderOfTheLogEachKeepTheirOwn) {
    TaskSchedulerQueueStats record;
    Mox::String entries, spaced;
    for (Mox::U32 p = 0; p < 5; ++p) {
        TaskSchedulerPriorityStats entry(TaskPriority::PriorityEnumInstance(p));
        entry.runnableTasksIs(10 + p);
        record.priorityIs(entry);
        entries += logForm(entry);
        spaced += logForm(TaskPriority(TaskPriority::scavenge)) + logForm(entry); // which one does not matter
    }
    EXPECT_EQ("None", testing::PrintToString(record));
    EXPECT_EQ("None", Mox::valueToStrep(record));
    EXPECT_EQ(TaskSchedulerQueueStats(), fromText<TaskSchedulerQueueStats>("None"));
    expectRefused<TaskSchedulerQueueStats>("none", "expected None");
    expectRefused<TaskSchedulerQueueStats>("Non", "premature end of text");
    expectRefused<TaskSchedulerQueueStats>("None ",
                                           "junk at column 4 deserializing Kel::TaskSchedulerQueueStats");

    Mox::String const terminator = logForm(TaskPriority(TaskPriority::absolute));
    EXPECT_EQ(entries + terminator, logForm(record));
    EXPECT_EQ(record, fromLog<TaskSchedulerQueueStats>(spaced + terminator));
    EXPECT_EQ(TaskSchedulerQueueStats(), fromLog<TaskSchedulerQueueStats>(terminator));
    EXPECT_THROW(fromLog<TaskSchedulerQueueStats>(spaced), Mox::RangeException); // no terminator
    EXPECT_THROW(fromLog<TaskSchedulerQueueStats>(logForm(record)), Mox::RangeException);
}

/// Texts, and the log forms of what Python is to read in them.
struct Comparison {
    template <class T> void add(char const* type, T const& value) {
        using Mox::valueToStrep;
        input += type + (' ' + boost::algorithm::hex(std::string(valueToStrep(value)))) + '\n';
        logs.push_back(boost::algorithm::hex_lower(std::string(logForm(value))));
    }
    std::string input;
    std::vector<std::string> logs;
};

TEST(PythonTextForm, PythonReadsEveryBitOfEveryValueAlike) {
    RandomRecords records;
    Comparison all;
    for (std::size_t i = 0; i < operations(5'000); ++i) {
        all.add("Kel::TaskStat", records.taskStat());
        all.add("Kel::TaskSchedulerPriorityStats", records.priorityStats());
        all.add("d", records.seconds());
        all.add("Q", Kel::TaskKey(records.number<Mox::U64>()));
        all.add("Q", Kel::ProcessId(records.number<Mox::S64>()));
        all.add("priority", records.priority());
    }
    for (Mox::U32 value = 0; value <= TaskStatus::valueMax; ++value)
        all.add("Kel::TaskStat::TaskStatus", TaskStatus(value));
    for (int byte = 0; byte < 256; ++byte)
        for (char const* const around : {"", "a", "\\", "0", "'"})
            all.add("string", Mox::String(around + std::string(1, static_cast<char>(byte)) + around));
    EXPECT_TRUE(TestSupport::python("scheduler/log_form_of_text.py", all.input) == all.logs);
}

} // namespace
