#include <scheduler/TaskSchedulerQueueStats.h>

#include <support/RandomRecords.h>
#include <support/TextForms.h>

#include <sstream>

namespace {

using namespace TestSupport;
using Kel::TaskPriority;
using Kel::TaskSchedulerPriorityStats;
using Kel::TaskSchedulerQueueStats;

TaskSchedulerPriorityStats stats(TaskPriority priority, Mox::U32 runnable) {
    TaskSchedulerPriorityStats result(priority);
    result.runnableTasksIs(runnable);
    return result;
}

TEST(PriorityStatsTextForm, IsToTheLetter) {
    TaskSchedulerPriorityStats record(TaskPriority::high);
    record.runnableTasksIs(1);
    record.idleTasksIs(2);
    record.deadTasksIs(3);
    record.totalRunCountIs(~Mox::U64{0});
    std::ostringstream stream;
    stream << record;
    EXPECT_EQ("Value('Kel::TaskSchedulerPriorityStats', ** {'taskPriority': 'high', 'runnableTasks': 1, "
              "'idleTasks': 2, 'deadTasks': 3, 'totalRunCount': 18446744073709551615})",
              stream.str());
    EXPECT_EQ(stream.str(), Mox::valueToStrep(record));
    EXPECT_EQ(std::string("\0\0\0\1\0\0\0\1\0\0\0\2\0\0\0\3\xff\xff\xff\xff\xff\xff\xff\xff", 24),
              logForm(record));
}

TEST(PriorityStatsTextForm, ComesBackFromTextAndLog) {
    RandomRecords records;
    for (std::size_t i = 0; i < operations(20'000); ++i)
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip(records.priorityStats()));
}

TEST(PriorityStatsTextForm, EveryErrorHasItsMessage) {
    std::string const name = "TaskSchedulerPriorityStats", head = "Value('Kel::" + name + "', ** {";
    expectRefused<TaskSchedulerPriorityStats>(head + "'idle': 1})", name + " has no such attribute: idle");
    expectRefused<TaskSchedulerPriorityStats>(head + "'idleTasks': 1, 'idleTasks': 1})",
                                              name + " has this attribute already: idleTasks");
    expectRefused<TaskSchedulerPriorityStats>(head + "})}", "junk at column 47 deserializing Kel::" + name);

    TaskSchedulerPriorityStats const record = RandomRecords().priorityStats();
    Mox::String const text = Mox::valueToStrep(record);
    expectCutTextsRefused<TaskSchedulerPriorityStats>(text, 0, text.size(), name);
    expectCutLogsRefused(record);
}

TEST(QueueStatsTextForm, IsNoneWhateverItHolds) {
    TaskSchedulerQueueStats record;
    record.priorityIs(stats(TaskPriority::low, 7));
    std::ostringstream stream;
    stream << record;
    EXPECT_EQ("None", stream.str());
    EXPECT_EQ("None", Mox::valueToStrep(record));
    EXPECT_EQ(TaskSchedulerQueueStats(), fromText<TaskSchedulerQueueStats>("None"));
    expectRefused<TaskSchedulerQueueStats>("none", "expected None");
    expectRefused<TaskSchedulerQueueStats>("Non", "premature end of text");
    expectRefused<TaskSchedulerQueueStats>("None ",
                                           "junk at column 4 deserializing Kel::TaskSchedulerQueueStats");
}

// The two do not fit, and that is so: the writer writes plain entries, the reader wants a priority before
// each.
TEST(QueueStatsLogForm, WriterAndReaderEachKeepTheirOwn) {
    TaskSchedulerQueueStats record;
    for (Mox::U32 p = 0; p < 5; ++p)
        record.priorityIs(stats(TaskPriority::PriorityEnumInstance(p), 10 + p));
    Mox::String entries, spaced;
    for (auto const& [priority, entry] : record.priority()) {
        entries += logForm(entry);
        spaced += logForm(TaskPriority(TaskPriority::scavenge)) + logForm(entry); // which one does not matter
    }
    Mox::String const terminator = logForm(TaskPriority(TaskPriority::absolute));
    EXPECT_EQ(entries + terminator, logForm(record));

    EXPECT_EQ(record, fromLog<TaskSchedulerQueueStats>(spaced + terminator));
    EXPECT_EQ(TaskSchedulerQueueStats(), fromLog<TaskSchedulerQueueStats>(terminator));
    EXPECT_THROW(fromLog<TaskSchedulerQueueStats>(spaced), Mox::RangeException); // no terminator

    TaskSchedulerQueueStats one;
    one.priorityIs(stats(TaskPriority::low, 0));
    EXPECT_THROW(fromLog<TaskSchedulerQueueStats>(logForm(one)), Mox::RangeException);
}

} // namespace
