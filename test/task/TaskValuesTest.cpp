#include <mox/Exception.h>
#include <task/TaskStat.h>

#include <gmock/gmock.h>

namespace {

using Kel::TaskKey;
using Kel::TaskPriority;
using Kel::TaskStat;
using testing::HasSubstr;

TEST(TaskPriority, NamesLettersAndTargetsOfTheBumpRule) {
    struct {
        TaskPriority::PriorityEnum value;
        char const* name;
        char const* letter;
        bool valid, target;
    } const cases[] = {
        {TaskPriority::absolute, "absolute", "A", true, false},
        {TaskPriority::high, "high", "H", true, true},
        {TaskPriority::normal, "normal", "N", true, true},
        {TaskPriority::low, "low", "L", true, false},
        {TaskPriority::scavenge, "scavenge", "S", true, false},
        {TaskPriority::oneBeyondLast, "oneBeyondLast", "-", false, false},
    };
    for (auto const& c : cases) {
        TaskPriority const priority = c.value;
        EXPECT_EQ(c.name, priority.toStrep());
        EXPECT_EQ(c.letter, priority.oneCharString());
        EXPECT_EQ(c.valid, priority.isValid()) << c.name;
        EXPECT_EQ(c.target, priority.isValidTargetPriorityForBump()) << c.name;
        EXPECT_EQ(c.value, TaskPriority::PriorityEnumInstance(c.name));
    }
    EXPECT_EQ("TaskPriority::PriorityEnum(7)",
              TaskPriority::stringValue(TaskPriority::PriorityEnumInstance(7u)));
    EXPECT_THROW(TaskPriority::PriorityEnumInstance("Normal"), Mox::RangeException);
    EXPECT_DEATH(TaskPriority(TaskPriority::PriorityEnumInstance(6u)).oneCharString(),
                 HasSubstr("false && \"unexpected priority\", source Task"));
}

TEST(TaskKey, OrdersAllItsBitsAndReadsItsTextBack) {
    TaskKey const low(0x00000001ffffffff), high(0x0000000200000000);
    EXPECT_LT(low, high);
    EXPECT_EQ(0xffffffffu, low.hash());
    for (TaskKey const key : {TaskKey(), low, high, TaskKey::none()}) {
        Mox::String const text = key.toStrep() + "?";
        Mox::String::IteratorConst position = text.begin();
        EXPECT_EQ(key, TaskKey(position, text.end())) << text;
        EXPECT_EQ('?', *position) << text;
    }
    EXPECT_EQ("@0x200000000", high.toStrep());
    for (Mox::String const text : {"", "@", "@12", "x", "99999999999999999999", "@0x10000000000000000"}) {
        Mox::String::IteratorConst position = text.begin();
        EXPECT_THROW(TaskKey(position, text.end()), Mox::RangeException) << text;
        EXPECT_EQ(text.begin(), position) << text;
    }
}

/// A field of the record: how to give it one of two values, and how merging the second into the first sees
/// it.
struct Field {
    char const* name;
    void (*set)(TaskStat&, bool second);
    void (*merged)(TaskStat const&);
};

Field const fields[] = {
    {"taskName", [](TaskStat& s, bool b) { s.taskNameIs(b ? "b" : "a"); }, nullptr},
    {"taskKey", [](TaskStat& s, bool b) { s.taskKeyIs(TaskKey(b ? 2 : 1)); },
     [](TaskStat const& s) { EXPECT_EQ(TaskKey(1), s.taskKey()); }},
    {"taskPriority",
     [](TaskStat& s, bool b) { s.taskPriorityIs(b ? TaskPriority::low : TaskPriority::high); },
     [](TaskStat const& s) { EXPECT_EQ(TaskPriority(TaskPriority::high), s.taskPriority()); }},
    {"taskRun", [](TaskStat& s, bool b) { s.taskRunIs(b ? 10 : 0xfffffffe); },
     [](TaskStat const& s) { EXPECT_EQ(8u, s.taskRun()) << "wraps"; }},
    {"taskTotalRunTime", [](TaskStat& s, bool b) { s.taskTotalRunTimeIs(b ? 0.5 : 1.25); },
     [](TaskStat const& s) { EXPECT_EQ(1.75, s.taskTotalRunTime()); }},
    {"taskWorkCount", [](TaskStat& s, bool b) { s.taskWorkCountIs(b ? 1 : 0xffffffff); },
     [](TaskStat const& s) { EXPECT_EQ(0x100000000u, s.taskWorkCount()); }},
    {"taskQuantumViolation500", [](TaskStat& s, bool b) { s.taskQuantumViolation500Is(b ? 3 : 4); },
     [](TaskStat const& s) { EXPECT_EQ(7u, s.taskQuantumViolation500()); }},
    {"taskQuantumViolation200", [](TaskStat& s, bool b) { s.taskQuantumViolation200Is(b ? 5 : 6); },
     [](TaskStat const& s) { EXPECT_EQ(11u, s.taskQuantumViolation200()); }},
    {"taskRunTimeHighWaterMark, greater",
     [](TaskStat& s, bool b) { s.taskRunTimeHighWaterMarkIs(b ? 3.0 : 2.0); },
     [](TaskStat const& s) { EXPECT_EQ(3.0, s.taskRunTimeHighWaterMark()); }},
    {"taskRunTimeHighWaterMark, less",
     [](TaskStat& s, bool b) { s.taskRunTimeHighWaterMarkIs(b ? 2.0 : 3.0); },
     [](TaskStat const& s) { EXPECT_EQ(3.0, s.taskRunTimeHighWaterMark()); }},
    {"taskLastSchedulingLatency", [](TaskStat& s, bool b) { s.taskLastSchedulingLatencyIs(b ? 1.0 : 2.0); },
     [](TaskStat const& s) { EXPECT_EQ(1.0, s.taskLastSchedulingLatency()) << "the latest, though less"; }},
    {"taskSchedulingLatencyHighWaterMark, greater",
     [](TaskStat& s, bool b) { s.taskSchedulingLatencyHighWaterMarkIs(b ? 9.0 : 8.0); },
     [](TaskStat const& s) { EXPECT_EQ(9.0, s.taskSchedulingLatencyHighWaterMark()); }},
    {"taskSchedulingLatencyHighWaterMark, less",
     [](TaskStat& s, bool b) { s.taskSchedulingLatencyHighWaterMarkIs(b ? 8.0 : 9.0); },
     [](TaskStat const& s) { EXPECT_EQ(9.0, s.taskSchedulingLatencyHighWaterMark()); }},
    {"taskDeadCount", [](TaskStat& s, bool b) { s.taskDeadCountIs(b ? 7 : 5); },
     [](TaskStat const& s) { EXPECT_EQ(6u, s.taskDeadCount()) << "the merge is one death"; }},
    {"taskStatus", [](TaskStat& s, bool b) { s.taskStatusIs(TaskStat::TaskStatus(b ? 4 : 8)); },
     [](TaskStat const& s) { EXPECT_EQ(4u, s.taskStatus().value()); }},
};

TEST(TaskStat, EachFieldCountsForEqualityAndMergesInItsWay) {
    for (Field const& field : fields) {
        SCOPED_TRACE(field.name);
        TaskStat a, b;
        a.taskNameIs("n"), b.taskNameIs("n");
        field.set(a, false), field.set(b, false);
        EXPECT_EQ(a, b);
        field.set(b, true);
        EXPECT_NE(a, b);
        if (!field.merged)
            continue;
        TaskStat const before = a;
        TaskStat const sum = a + b;
        EXPECT_EQ(before, a);
        EXPECT_EQ(sum, a += b);
        field.merged(a);
    }
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

TEST(TaskStat, StatusHasFiveFlagsAndNoMore) {
    using Status = TaskStat::TaskStatus;
    struct {
        Mox::U32 mask;
        void (Status::*set)(bool);
        bool (Status::*get)() const;
    } const flags[] = {
        {0x01, &Status::taskTimerIs, &Status::taskTimer},
        {0x02, &Status::taskTimerRunningIs, &Status::taskTimerRunning},
        {0x04, &Status::taskOnRunQueueIs, &Status::taskOnRunQueue},
        {0x08, &Status::taskCurrentlyRunningIs, &Status::taskCurrentlyRunning},
        {0x10, &Status::taskSuspendedForTestIs, &Status::taskSuspendedForTest},
    };
    for (auto const& flag : flags) {
        Status status, all(0x1f);
        (status.*flag.set)(true), (all.*flag.set)(false);
        EXPECT_EQ(flag.mask, status.value());
        EXPECT_TRUE((status.*flag.get)());
        EXPECT_EQ(0x1fu & ~flag.mask, all.value());
        EXPECT_FALSE((all.*flag.get)());
    }
    Status status(0x1f);
    try {
        status.valueIs(0x20);
        ADD_FAILURE();
    } catch (Mox::RangeException const& e) {
        EXPECT_STREQ("TaskStatus::value > 0x1f not allowed", e.what());
    }
    EXPECT_EQ(0x1fu, status.value());
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
