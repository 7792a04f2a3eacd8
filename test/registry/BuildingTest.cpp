#include <mox/TypeRegistry.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

#include <gmock/gmock.h>

#include <bit>

namespace {

using namespace std::string_literals;
using Mox::Ingredients;
using Mox::String;
using Texts = std::vector<Ingredients::Text>;

struct BuildingTest : TestSupport::HandTreeTest {
    static Mox::Ptr<Mox::PtrInterface> build(std::string_view type, Ingredients const& ingredients) {
        return Mox::typeRegistry().type(type).makeEntity(ingredients);
    }
    static std::string refused(std::string_view type, Ingredients const& ingredients) {
        return TestSupport::refusal([&] { build(type, ingredients); });
    }
    Texts const needed{{"taskName", "'built'"}, {"taskPriority", "'low'"}};
    Texts with(String const& attribute, String const& text) const {
        Texts more = needed;
        more.push_back({attribute, text});
        return more;
    }
};

} // namespace

TEST_F(BuildingTest, ValuesAreBuiltFromTexts) {
    auto const value = Mox::typeRegistry()
                           .type("Kel::TaskStat")
                           .makeValue({{"taskName", "'a b'"},
                                       {"taskRun", "3"},
                                       {"taskTotalRunTime", "0.5"},
                                       {"taskPriority", "'high'"}});
    Kel::TaskStat expected;
    expected.taskNameIs("a b");
    expected.taskRunIs(3);
    expected.taskTotalRunTimeIs(0.5);
    expected.taskPriorityIs(Kel::TaskPriority::high);
    EXPECT_EQ(std::any_cast<Kel::TaskStat>(value), expected);

    std::string const status = "Kel::TaskStat::TaskStatus";
    for (auto const& [type, texts, message] : {
             std::tuple{"Kel::TaskStat"s, Texts{{"task", "1"}}, "Kel::TaskStat has no attribute 'task'"},
             {"Kel::TaskStat"s, {{"taskRun", "1"}, {"taskRun", "2"}}, "Kel::TaskStat::taskRun: given twice"},
             {status, {{"value", "32"}}, "TaskStatus::value > 0x1f not allowed"},
             {status, {{"value", "18446744073709551616"}}, "TaskStatus::value > 0x1f not allowed"},
             {status,
              {{"value", "007x"}},
              "Kel::TaskStat::TaskStatus::value: '007x' is no Mox::U32: junk at column 3 deserializing "
              "Mox::U32"},
         })
        EXPECT_EQ(TestSupport::refusal(
                      [&, &type = type, &texts = texts] { Mox::typeRegistry().type(type).makeValue(texts); }),
                  message);
}

TEST_F(BuildingTest, AttributesOfValuesAreTheFieldsOfTheirTextForms) {
    Kel::TaskStat stat;
    std::string fields;
    for (Mox::Attribute const* attribute :
         Mox::typeRegistry().typeOf(Mox::Subject::ofValue(stat)).attributes())
        fields += (fields.empty() ? "'" : ", '") + attribute->name +
                  "': " + Mox::attributeText(Mox::Subject::ofValue(stat), attribute->name);
    EXPECT_EQ(Mox::valueToStrep(stat), "Value('Kel::TaskStat', ** {" + fields + "})");
}

TEST_F(BuildingTest, StatusIsItsWholeValueWhereverThatStands) {
    Texts const flagsLast{{"value", "7"}, {"taskTimer", "False"}, {"taskSuspendedForTest", "True"}};
    for (Texts const& texts : {flagsLast, Texts(flagsLast.rbegin(), flagsLast.rend())}) {
        auto const status = Mox::typeRegistry().type("Kel::TaskStat::TaskStatus").makeValue(texts);
        EXPECT_EQ(std::any_cast<Kel::TaskStat::TaskStatus>(status).value(), 7u);
    }
}

TEST_F(BuildingTest, ValuesReadAsTheyWereBuilt) {
    auto const text = [](auto value, char const* attribute) {
        return Mox::attributeText(Mox::Subject::ofValue(value), attribute);
    };
    auto const built = [](char const* type, Texts const& texts) {
        return Mox::typeRegistry().type(type).makeValue(texts);
    };
    for (auto const& [type, good, bad] :
         std::initializer_list<std::tuple<char const*, char const*, char const*>>{
             {"Kel::TaskTimeStamp", "-5", "x"},
             {"Kel::TaskTimeDuration", "-9223372036854775808", "9223372036854775808"},
             {"Kel::TaskKey", "18446744073709551615", "-1"},
             {"Kel::ProcessId", "-2", "1 "},
             {"Kel::TaskPriority", "'scavenge'", "'lowest'"},
             {"Kel::TaskSchedulerHistory::EventType", "17", "18"},
             {"Kel::TaskStat::TaskStatus", "31", "32"}}) {
        std::any value = built(type, {{"value", good}});
        auto const& entry = Mox::typeRegistry().type(type);
        EXPECT_NE(TestSupport::refusal([&, &type = type, &bad = bad] {
                      built(type, {{"value", bad}});
                  }),
                  "")
            << type;
        if (auto* stamp = std::any_cast<Kel::TaskTimeStamp>(&value)) {
            EXPECT_EQ(entry.text(Mox::Subject::ofValue(*stamp), "value"), good);
        } else if (auto* key = std::any_cast<Kel::TaskKey>(&value)) {
            EXPECT_EQ(entry.text(Mox::Subject::ofValue(*key), "value"), good);
        }
    }
    for (char const* flag : {"taskTimer", "taskTimerRunning", "taskOnRunQueue", "taskCurrentlyRunning",
                             "taskSuspendedForTest"}) {
        auto const status =
            std::any_cast<Kel::TaskStat::TaskStatus>(built("Kel::TaskStat::TaskStatus", {{flag, "True"}}));
        EXPECT_EQ(text(status, flag), "True");
        EXPECT_TRUE(std::has_single_bit(status.value()));
    }
    auto const t = task("shown");
    t->scheduleTask();
    EXPECT_EQ(text(*root->history().begin(), "task"), "'shown'");
}

TEST_F(BuildingTest, EntitiesAreBuiltFromTextsAndReferences) {
    auto const task = build("Kel::TimerTask", {with("taskQuantum", "0.25"), {{"taskScheduler", root}}});
    ASSERT_NE(dynamic_cast<Kel::TimerTask*>(task.ptr()), nullptr);
    EXPECT_EQ(Mox::attributeText(*task, "taskName"), "'built'");
    EXPECT_EQ(Mox::attributeText(*task, "taskQuantum"), "0.25");
    EXPECT_EQ(Mox::attributeText(*task, "hasNotificationActive"), "True");

    auto const group = build(
        "Kel::TaskGroup",
        {{{"taskGroupName", "'g'"}, {"taskGroupPriority", "'low'"}, {"enforceTaskGroupPriority", "True"}},
         {{"parentScheduler", root}}});
    EXPECT_EQ(Mox::attributeText(*group, "schedulerName"), "'TaskGroup;g'");
    EXPECT_EQ(Mox::attributeText(*group, "enforceTaskGroupPriority"), "True");
    auto const loose = build("Kel::TaskGroup", {{{"taskGroupName", "''"},
                                                 {"taskGroupPriority", "'scavenge'"},
                                                 {"enforceTaskGroupPriority", "False"}},
                                                {{"parentScheduler", root}}});
    EXPECT_EQ(Mox::attributeText(*loose, "enforceTaskGroupPriority"), "False");
    EXPECT_NE(build("Kel::Task", {needed, {{"taskScheduler", group}}}), nullptr);
    auto const parentTask =
        build("Kel::TaskGroupParentTask", {needed, {{"taskScheduler", group}, {"taskGroup", nullptr}}});
    EXPECT_EQ(Mox::attributeText(*parentTask, "taskGroup"), "None");
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const driver =
        build("Kel::TaskSchedulerEventLoop", {{{"schedulerName", "'r'"}}, {{"evLoop", loop}}});
    EXPECT_NE(build("Kel::TaskScheduler", {{{"schedulerName", "'s'"}}, {{"root", driver}}}), nullptr);
}

TEST_F(BuildingTest, RefusedIngredientsLeaveNothing) {
    auto const group = Kel::taskGroupFactory("g", Kel::TaskPriority::high, true, root);
    auto const bareRoot = Kel::taskSchedulerRootFactory("bare");
    Texts const noPriority{{"taskName", "'built'"}, {"taskPriority", "'oneBeyondLast'"}};
    Texts const noName{{"taskPriority", "'low'"}};
    for (auto const& [ingredients, message] : std::vector<std::pair<Ingredients, char const*>>{
             {{needed, {}}, "Kel::TimerTask::taskScheduler: the reference is missing"},
             {{noName, {{"taskScheduler", root}}}, "Kel::TimerTask::taskName: the text is missing"},
             {{needed, {{"taskScheduler", nullptr}}}, "Kel::TimerTask::taskScheduler: null"},
             {{needed, {{"taskScheduler", root}, {"friend", root}}},
              "Kel::TimerTask::friend: not built from a reference"},
             {{noPriority, {{"taskScheduler", root}}},
              "Kel::TimerTask::taskPriority: 'oneBeyondLast' is no priority of a task"},
             {{with("taskQuantum", "2.0"), {{"taskScheduler", root}}},
              "Kel::TimerTask::taskQuantum: 2.0 is not within 1e-09 and 1.0 seconds"},
             {{with("taskQuantums", "1.0"), {{"taskScheduler", root}}},
              "Kel::TimerTask has no attribute 'taskQuantums'"},
             {{needed, {{"taskScheduler", group}}},
              "Kel::TimerTask::taskScheduler: the group takes tasks of priority high only"},
             {{needed, {{"taskScheduler", bareRoot}}},
              "Kel::TimerTask::taskScheduler: the root has no timer wheel"},
         })
        EXPECT_EQ(refused("Kel::TimerTask", ingredients), message);
    EXPECT_THAT(refused("Kel::TimerTask", {needed, {{"taskScheduler", group->parentTask()->notifier()}}}),
                testing::HasSubstr("is no Kel::TaskScheduler"));
    EXPECT_EQ(refused("Kel::TaskGroupParentTask", {needed, {{"taskScheduler", group}, {"taskGroup", group}}}),
              "Kel::TaskGroupParentTask::taskScheduler: the group takes tasks of priority high only");
    EXPECT_EQ(root->tasksRegistered().size(), 1u); // the group's
    EXPECT_TRUE(root->deadTaskStats().empty());
    EXPECT_THROW(build("Kel::Tusk", {}), Mox::RangeException);
    EXPECT_THROW(build("Kel::TaskStat", {}), Mox::OperationNotSupportedException);
}
