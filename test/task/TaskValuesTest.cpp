#include <mox/Exception.h>
#include <mox/HashMap.h>
#include <task/ProcessId.h>
#include <task/TaskStat.h>
#include <task/TaskTime.h>

#include <gmock/gmock.h>

namespace {

using Kel::ProcessId;
using Kel::TaskKey;
using Kel::TaskPriority;
using Kel::TaskStat;
using Kel::TaskTimeDuration;
using Kel::TaskTimeStamp;
using testing::HasSubstr;

TEST(TaskPriority, OutsideTheEnumerationHasATextButNoLetter) {
    auto const seven = TaskPriority::PriorityEnumInstance(7u);
    EXPECT_EQ("TaskPriority::PriorityEnum(7)", TaskPriority(seven).toStrep());
    EXPECT_EQ("-", TaskPriority(TaskPriority::oneBeyondLast).oneCharString());
    EXPECT_EQ(TaskPriority::scavenge, TaskPriority::PriorityEnumInstance("scavenge"));
    EXPECT_THROW(TaskPriority::PriorityEnumInstance("Scavenge"), Mox::RangeException);
    EXPECT_DEATH(TaskPriority(seven).oneCharString(),
                 HasSubstr("false && \"unexpected priority\", source Task"));
}

TEST(TaskKey, OrdersAllItsBitsAndReadsItsTextBack) {
    EXPECT_LT(TaskKey(0x00000001ffffffff), TaskKey(0x0000000200000000));
    EXPECT_EQ(0xffffffffu, TaskKey(0x00000001ffffffff).hash());
    Mox::String const text = TaskKey(0x200000000).toStrep() + "?";
    EXPECT_EQ("@0x200000000?", text);
    Mox::String::IteratorConst position = text.begin();
    EXPECT_EQ(TaskKey(0x200000000), TaskKey(position, text.end()));
    EXPECT_EQ('?', *position);
    for (Mox::String const bad : {"", "@", "@12", "x", "99999999999999999999", "@0x10000000000000000"}) {
        position = bad.begin();
        EXPECT_THROW(TaskKey(position, bad.end()), Mox::RangeException) << bad;
        EXPECT_EQ(bad.begin(), position) << bad;
    }
}

TaskStat stat(char const* name, Mox::U64 key, TaskPriority priority, Mox::U32 runs, double total,
              Mox::U64 work, Mox::U32 over500, Mox::U32 over200, double longest, double last, double greatest,
              Mox::U32 dead, Mox::U32 status) {
    TaskStat s;
    s.taskNameIs(name), s.taskKeyIs(TaskKey(key)), s.taskPriorityIs(priority), s.taskRunIs(runs);
    s.taskTotalRunTimeIs(total), s.taskWorkCountIs(work);
    s.taskQuantumViolation500Is(over500), s.taskQuantumViolation200Is(over200);
    s.taskRunTimeHighWaterMarkIs(longest), s.taskLastSchedulingLatencyIs(last);
    s.taskSchedulingLatencyHighWaterMarkIs(greatest), s.taskDeadCountIs(dead);
    s.taskStatusIs(TaskStat::TaskStatus(status));
    return s;
}

constexpr TaskPriority high = TaskPriority::high, low = TaskPriority::low;

TEST(Hashing, TimesAndProcessesAreKeysOfMaps) {
    Mox::HashMap<TaskTimeStamp, int> byStamp;
    Mox::HashMap<TaskTimeDuration, int> byDuration;
    Mox::HashMap<ProcessId, int> byProcess;
    for (int i = -500; i < 500; ++i) {
        Mox::Nanoseconds const duration(Mox::S64{i} << 31); // some differ in the upper half only
        byStamp.valueIs(TaskTimeStamp(duration), i);
        byDuration.valueIs(duration, i);
        byProcess.valueIs(ProcessId(duration.count()), i);
    }
    EXPECT_EQ(byStamp.size() + byDuration.size() + byProcess.size(), 3000u);
    Mox::Nanoseconds const sought(Mox::S64{-77} << 31);
    EXPECT_EQ(*byStamp.find(TaskTimeStamp(sought)), -77);
    EXPECT_EQ(*byDuration.find(sought), -77);
    EXPECT_EQ(*byProcess.find(ProcessId(sought.count())), -77);
}

TEST(TaskStat, EachFieldCountsForEquality) {
    TaskStat const a = stat("n", 1, high, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1);
    TaskStat const others[] = {
        stat("m", 1, high, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1), stat("n", 2, high, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1),
        stat("n", 1, low, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1),  stat("n", 1, high, 2, 1, 1, 1, 1, 1, 1, 1, 1, 1),
        stat("n", 1, high, 1, 2, 1, 1, 1, 1, 1, 1, 1, 1), stat("n", 1, high, 1, 1, 2, 1, 1, 1, 1, 1, 1, 1),
        stat("n", 1, high, 1, 1, 1, 2, 1, 1, 1, 1, 1, 1), stat("n", 1, high, 1, 1, 1, 1, 2, 1, 1, 1, 1, 1),
        stat("n", 1, high, 1, 1, 1, 1, 1, 2, 1, 1, 1, 1), stat("n", 1, high, 1, 1, 1, 1, 1, 1, 2, 1, 1, 1),
        stat("n", 1, high, 1, 1, 1, 1, 1, 1, 1, 2, 1, 1), stat("n", 1, high, 1, 1, 1, 1, 1, 1, 1, 1, 2, 1),
        stat("n", 1, high, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2),
    };
    EXPECT_EQ(a, stat("n", 1, high, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1));
    for (TaskStat const& other : others)
        EXPECT_NE(a, other) << &other - others;
}

TEST(TaskStat, EachFieldMergesInItsWay) {
    TaskStat const a = stat("n", 1, high, 0xfffffffe, 1.25, 0xffffffff, 4, 6, 2.0, 2.0, 9.0, 5, 0x08);
    TaskStat const b = stat("n", 2, low, 10, 0.5, 1, 3, 5, 3.0, 1.0, 8.0, 7, 0x04);
    TaskStat sum = a;
    EXPECT_EQ(stat("n", 1, high, 8, 1.75, 0x100000000, 7, 11, 3.0, 1.0, 9.0, 6, 0x04), sum += b);
    EXPECT_EQ(sum, a + b);
    EXPECT_EQ(stat("n", 2, low, 8, 1.75, 0x100000000, 7, 11, 3.0, 2.0, 9.0, 8, 0x08), b + a);
}

TEST(TaskStat, EmptyOneTakesNameAndPriorityButNoKey) {
    TaskStat dead;
    dead.taskNameIs("n"), dead.taskKeyIs(TaskKey(5)), dead.taskPriorityIs(TaskPriority::low),
        dead.taskRunIs(3);
    TaskStat sum;
    sum += dead;
    sum += dead;
    EXPECT_EQ("n", sum.taskName());
    EXPECT_EQ(TaskPriority(TaskPriority::low), sum.taskPriority());
    EXPECT_EQ(TaskKey(), sum.taskKey());
    EXPECT_EQ(6u, sum.taskRun());
    EXPECT_EQ(2u, sum.taskDeadCount());

    TaskStat other;
    other.taskNameIs("m");
    EXPECT_DEATH(sum += other, HasSubstr("taskName() == rhs.taskName(), source Task, function"));
    EXPECT_DEATH(sum += TaskStat(), HasSubstr("taskName() == rhs.taskName(), source Task"));
}

TEST(TaskStat, StatusTakesFiveBits) {
    TaskStat::TaskStatus status(0x1f);
    EXPECT_THROW(status.valueIs(0x20), Mox::RangeException);
    EXPECT_EQ(0x1fu, status.value());
    status.taskOnRunQueueIs(false);
    EXPECT_EQ(0x1bu, status.value());
}

TEST(TaskStat, StatusStringShowsWhatMattersMost) {
    struct {
        Mox::U32 status;
        TaskPriority::PriorityEnum priority;
        char const* text;
    } const cases[] = {
        {0x00, TaskPriority::high, " h"},   {0x04, TaskPriority::high, " H"},
        {0x01, TaskPriority::low, "tl"},    {0x03, TaskPriority::low, "Tl"},
        {0x07, TaskPriority::low, "TL"},    {0x02, TaskPriority::absolute, " a"},
        {0x08, TaskPriority::normal, "*n"}, {0x1f, TaskPriority::scavenge, "*S"},
        {0x13, TaskPriority::normal, "Sn"}, {0x14, TaskPriority::normal, "SN"},
    };
    for (auto const& c : cases) {
        TaskStat stat;
        stat.taskStatusIs(TaskStat::TaskStatus(c.status));
        stat.taskPriorityIs(c.priority);
        EXPECT_EQ(c.text, stat.taskStatusString());
    }
}

} // namespace
