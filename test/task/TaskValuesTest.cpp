#include <mox/HashMap.h>
#include <task/TaskStat.h>
#include <task/TaskTime.h>

#include <support/TextForms.h>

namespace {

using Kel::TaskPriority;
using Kel::TaskStat;
using testing::HasSubstr;

TEST(Hashing, TimesAreKeysOfMaps) {
    Mox::HashMap<Kel::TaskTimeStamp, Mox::S64> map;
    auto const time = [](Mox::S64 i) { return Kel::TaskTimeStamp(Mox::Nanoseconds(i << 31)); };
    for (Mox::S64 i = -500; i < 500; ++i) // some differ in the upper half only
        map.valueIs(time(i), i);
    EXPECT_EQ(-77, *map.find(time(-77)));
}

TaskStat statOf(std::string const& attributes) {
    return TestSupport::fromText<TaskStat>("Value('Kel::TaskStat', ** {" + attributes + "})");
}

std::string status(int value) {
    return "Value('Kel::TaskStat::TaskStatus', ** {'value': " + std::to_string(value) + "})";
}

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
        {"taskStatus", status(8), status(4), status(4)},
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
        EXPECT_DEATH(dead + other, HasSubstr("taskName() == rhs.taskName(), source Task, function"));
}

TEST(TaskStat, StatusStringShowsWhatMattersMost) {
    struct {
        Mox::U32 status;
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
