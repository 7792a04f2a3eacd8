#include <mox/AttributeText.h>
#include <mox/TypeRegistry.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

namespace {

using Mox::attributeText;
using Mox::Ingredients;
using Texts = std::vector<Ingredients::Text>;
using References = std::vector<Ingredients::Reference>;
using Status = Kel::TaskStat::TaskStatus;

struct BuildingTest : TestSupport::HandTreeTest {
    static Mox::Ptr<Mox::PtrInterface> build(char const* type, Texts const& texts, References const& all) {
        return Mox::typeRegistry().type(type).makeEntity({texts, all});
    }
    template <class V> static V value(Texts const& texts) {
        return std::any_cast<V>(Mox::typeRegistry().type(Mox::typeNameOf<V>()).makeValue(texts));
    }
    template <class V> static void expectReadAsBuilt(std::string name, char const* good, char const* bad) {
        V built = value<V>({{name, good}});
        EXPECT_EQ(attributeText(Mox::Subject::ofValue(built), name), good);
        EXPECT_THROW(value<V>({{name, bad}}), Mox::RangeException) << name << " " << bad;
    }
    Texts const needed{{"taskName", "'built'"}, {"taskPriority", "'low'"}};
};

} // namespace

TEST_F(BuildingTest, ValuesAreBuiltFromTextsAndReadAsThese) {
    expectReadAsBuilt<Kel::TaskTimeStamp>("value", "-5", "x");
    expectReadAsBuilt<Kel::TaskTimeDuration>("value", "-9223372036854775808", "9223372036854775808");
    expectReadAsBuilt<Kel::TaskKey>("value", "18446744073709551615", "-1");
    expectReadAsBuilt<Kel::ProcessId>("value", "-2", "1 ");
    expectReadAsBuilt<Kel::TaskPriority>("value", "'scavenge'", "'lowest'");
    expectReadAsBuilt<Kel::TaskPriority::PriorityEnum>("value", "3", "'low'");
    expectReadAsBuilt<Kel::TaskSchedulerEventType>("value", "17", "18");
    expectReadAsBuilt<Kel::TaskStat>("taskTotalRunTime", "0.5", "s");
    expectReadAsBuilt<Status>("value", "31", "32");
    for (char const* flag : {"taskTimer", "taskTimerRunning", "taskOnRunQueue", "taskCurrentlyRunning",
                             "taskSuspendedForTest"}) {
        expectReadAsBuilt<Status>(flag, "True", "1");
        EXPECT_EQ(value<Status>({{flag, "True"}, {"value", "0"}}).value(), 0u); // the whole counts
        EXPECT_EQ(value<Status>({{"value", "31"}, {flag, "False"}}).value(), 31u);
    }
    EXPECT_THROW(value<Kel::TaskStat>({{"taskRun", "1"}, {"taskRun", "2"}}), Mox::RangeException);
}

TEST_F(BuildingTest, EntitiesAreBuiltFromTextsAndReferencesOrRefusedAndNothingIsLeft) {
    auto const group = build(
        "Kel::TaskGroup",
        {{"taskGroupName", "'g'"}, {"taskGroupPriority", "'high'"}, {"enforceTaskGroupPriority", "True"}},
        {{"parentScheduler", root}});
    EXPECT_EQ(attributeText(*group, "schedulerName"), "'TaskGroup;g'");
    Texts const named{needed[0], {"taskPriority", "'high'"}},
        noPriority{needed[0], {"taskPriority", "'oneBeyondLast'"}};
    auto const parentTask =
        build("Kel::TaskGroupParentTask", named, {{"taskScheduler", group}, {"taskGroup", nullptr}});
    EXPECT_EQ(attributeText(*parentTask, "taskGroup") + attributeText(*parentTask, "taskPriority"),
              "None'high'");
    auto const driver = build("Kel::TaskSchedulerEventLoop", {{"schedulerName", "'r'"}},
                              {{"evLoop", Kel::EventLoop::EventLoopIs()}});
    EXPECT_NE(build("Kel::TaskScheduler", {{"schedulerName", "'s'"}}, {{"root", driver}}), nullptr);
    References const onRoot{{"taskScheduler", root}};
    for (auto const& [texts, references, message] : std::vector<std::tuple<Texts, References, std::string>>{
             {{needed[0], needed[1], {"taskQuantum", "0.25"}}, onRoot, ""},
             {{needed[0], needed[1], {"taskQuantum", "2.0"}},
              onRoot,
              "taskQuantum: 2.0 is not within 1e-09 and 1.0 seconds"},
             {needed, {}, "taskScheduler: the reference is missing"},
             {{needed[1]}, onRoot, "taskName: the text is missing"},
             {needed, {{"taskScheduler", nullptr}}, "taskScheduler: null"},
             {needed,
              {{"taskScheduler", parentTask}},
              "taskScheduler: " + Mox::referenceToStrep(parentTask.ptr()) + " is no Kel::TaskScheduler"},
             {needed, {onRoot[0], {"friend", root}}, "friend: not built from a reference"},
             {noPriority, onRoot, "taskPriority: 'oneBeyondLast' is no priority of a task"},
             {needed,
              {{"taskScheduler", group}},
              "taskScheduler: the group takes tasks of priority high only"},
             {needed,
              {{"taskScheduler", Kel::taskSchedulerRootFactory("bare")}},
              "taskScheduler: the root has no timer wheel"}})
        EXPECT_EQ(TestSupport::refusal([&, &t = texts, &r = references] {
                      EXPECT_EQ(attributeText(*build("Kel::TimerTask", t, r), "taskQuantum"), "0.25");
                  }),
                  (message.empty() ? "" : "Kel::TimerTask::") + message);
    EXPECT_EQ(root->tasksRegistered().size(), 1u); // the group's
    char const* const parentType = "Kel::TaskGroupParentTask";
    auto const runs = build(parentType, named, {{"taskScheduler", group}, {"taskGroup", group}});
    EXPECT_EQ(attributeText(*runs, "taskGroup"), Mox::referenceToStrep(group.ptr()));
    References const lacksGroup{{"taskScheduler", group}, {"taskGroup", nullptr}};
    EXPECT_THROW(build(parentType, needed, lacksGroup), Mox::RangeException);
    Texts const lowGroup{
        {"taskGroupName", "'g'"}, {"taskGroupPriority", "'low'"}, {"enforceTaskGroupPriority", "True"}};
    EXPECT_THROW(build("Kel::TaskGroup", lowGroup, {{"parentScheduler", group}}), Mox::RangeException);
    EXPECT_THROW(build("Kel::Tusk", {}, {}), Mox::RangeException);
    EXPECT_THROW(build("Kel::TaskStat", {}, {}), Mox::OperationNotSupportedException);
}
