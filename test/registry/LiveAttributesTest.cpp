#include <mox/AttributeTable.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>
#include <support/HandRoot.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <cmath>
#include <set>
#include <thread>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using Mox::attributeText;
using Mox::attributeTextIs;
using Mox::callOperation;
using Mox::String;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// A task of an application, with an attribute of its own, which its own table makes known.
class CountingTask : public Task {
  public:
    explicit CountingTask(Mox::Ptr<Kel::TaskScheduler> const& scheduler)
        : Task(scheduler, TaskPriority::normal, "counting") {}
    static Mox::Type const& type() {
        static Mox::Type const type{"CountingTask", &Task::type()};
        return type;
    }
    Mox::Type const* fwkType() const override { return &type(); }
    Mox::U32 limit() const { return limit_; }
    void limitIs(Mox::U32 limit) { limit_ = limit; }

  private:
    Mox::U32 limit_ = 0;
};
class CountingTaskForTen : public CountingTask {
  public:
    using CountingTask::CountingTask;
    static Mox::Type const& type() {
        static Mox::Type const type{"CountingTaskForTen", &CountingTask::type()};
        return type;
    }
    Mox::Type const* fwkType() const override { return &type(); }
};

Mox::TypeTables const derivedFirst([](Mox::TypeRegistry& registry) {
    Mox::AttributeTable<CountingTaskForTen>{registry};
    Mox::AttributeTable<CountingTask>(registry).writable("limit", &CountingTask::limit,
                                                         &CountingTask::limitIs);
});

/// One entity of each type, in trees that a test runs by hand or lets run.
struct LiveAttributesTest : TestSupport::HandTreeTest {
    struct Named {
        char const* what;
        Mox::Ptr<Mox::PtrInterface> entity;
    };

    std::vector<Named> everyEntity() {
        return {{"task", aTask},
                {"scheduled task", aScheduledTask},
                {"timer task", aTimerTask},
                {"root", root},
                {"group", group},
                {"parent task", group->parentTask()->notifier()},
                {"event loop's root", loopRoot},
                {"activity's root", activityRoot},
                {"root without driver", bareRoot},
                {"task of a root without driver", taskOfBareRoot},
                {"scheduler without driver", bareScheduler},
                {"group below a root without driver", groupOfBareRoot}};
    }
    std::string refusal(Mox::Subject const& subject, std::string_view attribute, String const& text) {
        try {
            attributeTextIs(subject, attribute, text);
        } catch (Mox::Exception const& e) {
            return e.what();
        }
        return "";
    }
    std::string refusalOfCall(Mox::Subject const& subject, std::string_view operation,
                              std::vector<String> const& arguments = {}) {
        try {
            callOperation(subject, operation, arguments);
        } catch (Mox::Exception const& e) {
            return e.what();
        }
        return "";
    }

    Mox::Ptr<Task> const aTask = task("idle");
    Mox::Ptr<Task> const aScheduledTask = task("scheduled");
    Mox::Ptr<Kel::TimerTask> const aTimerTask = timerTask("timer");
    Mox::Ptr<Kel::TaskGroup> const group = Kel::taskGroupFactory("group", TaskPriority::low, false, root);
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const loopRoot = Kel::taskSchedulerEventLoopFactory("loop", loop);
    Mox::Ptr<Kel::TaskSchedulerMoxActivity> const activityRoot =
        Kel::taskSchedulerMoxActivityFactory("activity");
    Mox::Ptr<Kel::TaskSchedulerRoot> const bareRoot = Kel::taskSchedulerRootFactory("bare");
    Mox::Ptr<Task> const taskOfBareRoot = Kel::taskFactory(bareRoot, TaskPriority::normal, "t");
    Mox::Ptr<Kel::TaskScheduler> const bareScheduler =
        Kel::TaskScheduler::TaskSchedulerIs("scheduler", bareRoot.ptr());
    Mox::Ptr<Kel::TaskGroup> const groupOfBareRoot =
        Kel::taskGroupFactory("group", TaskPriority::low, true, bareRoot);
};

/// Good and bad texts of every type that attributes and arguments have.
std::vector<String> const texts{"True",
                                "False",
                                "0",
                                "1",
                                "-1",
                                "101",
                                "4294967295",
                                "4294967296",
                                "18446744073709551615",
                                "9223372036854775807",
                                "-9223372036854775808",
                                "0.25",
                                "1.0",
                                "1.5",
                                "1e-10",
                                "-0.0",
                                "1e300",
                                "float('nan')",
                                "float('inf')",
                                "-float('inf')",
                                "'normal'",
                                "'oneBeyondLast'",
                                "'TaskPriority::PriorityEnum(7)'",
                                "None",
                                "",
                                " ",
                                "1 1",
                                "True,",
                                "'",
                                "@0x10",
                                "@0xffffffffffffffff"};

/// Whether what is read is what was written: seconds may have been cut to whole nanoseconds.
bool saysTheSame(std::string const& type, String const& written, String const& read) {
    if (type != "double" && !written.starts_with("@"))
        return written == read;
    double a = 0, b = 0;
    if (written.starts_with("@"))
        return read == "16" || read == "18446744073709551615";
    Mox::strepToValue(written, &a);
    Mox::strepToValue(read, &b);
    return a == b || std::abs(a - b) <= 1e-9;
}

} // namespace

TEST_F(LiveAttributesTest, EveryAttributeIsReadAndEveryTextIsTakenOrRefusedWithoutEffect) {
    aScheduledTask->scheduleTask();
    for (Named const& named : everyEntity())
        for (Mox::Attribute const* attribute : Mox::typeRegistry().typeOf(*named.entity).attributes()) {
            SCOPED_TRACE(std::string(named.what) + ", " + attribute->name);
            Mox::PtrInterface& entity = *named.entity;
            String const at = attributeText(entity, attribute->name);
            EXPECT_FALSE(at.empty());
            if (!attribute->isWritable()) {
                EXPECT_THROW(attributeTextIs(entity, attribute->name, at),
                             Mox::OperationNotSupportedException);
            }
            int taken = 0;
            for (String const& text : texts) {
                String const before = attributeText(entity, attribute->name);
                std::string const problem = refusal(entity, attribute->name, text);
                String const after = attributeText(entity, attribute->name);
                if (problem.empty()) {
                    EXPECT_TRUE(saysTheSame(attribute->type, text, after)) << text << " reads " << after;
                } else {
                    EXPECT_EQ(after, before) << text << ": " << problem;
                }
                taken += problem.empty();
            }
            bool const isReference = attribute->name == "tasksRegistered";
            EXPECT_EQ(taken > 0, attribute->isWritable() && !isReference);
        }
    EXPECT_EQ(root->moxAuditErrors(1) + bareRoot->moxAuditErrors(1) + loopRoot->moxAuditErrors(1), 0u);
}

TEST_F(LiveAttributesTest, EveryOperationIsCalledOrRefused) {
    aScheduledTask->scheduleTask();
    for (Named const& named : everyEntity())
        for (Mox::Operation const* operation : Mox::typeRegistry().typeOf(*named.entity).operations()) {
            SCOPED_TRACE(std::string(named.what) + ", " + operation->name);
            EXPECT_THROW(callOperation(*named.entity, operation->name, {"1", "2", "3"}), Mox::RangeException);
            std::size_t const parameters = operation->parameterTypes.size();
            int called = 0;
            std::vector<String> const none{""};
            for (String const& first : parameters > 0 ? texts : none)
                for (String const& second : parameters > 1 ? texts : none) {
                    std::vector<String> arguments{first, second};
                    arguments.resize(parameters);
                    called += refusalOfCall(*named.entity, operation->name, arguments).empty();
                }
            bool const isBare = named.entity == taskOfBareRoot || named.entity == bareRoot ||
                                named.entity == bareScheduler || named.entity == groupOfBareRoot;
            std::set<std::string> const needRun{"requestSchedulerRun", "resetStats", "scheduleTask",
                                                "trimHistoryTaskSchedule"};
            bool const isTasksOwn = named.entity == taskOfBareRoot && operation->name == "resetStats";
            EXPECT_EQ(called > 0, isTasksOwn || !isBare || !needRun.contains(operation->name));
        }
    EXPECT_EQ(root->moxAuditErrors(1) + bareRoot->moxAuditErrors(1) + loopRoot->moxAuditErrors(1), 0u);
}

TEST_F(LiveAttributesTest, WritingHasTheSettersEffects) {
    attributeTextIs(*aTask, "taskQuantum", "0.25");
    EXPECT_EQ(aTask->taskQuantum(), 0.25);
    attributeTextIs(*group, "taskGroupQuantum", "0.5");
    EXPECT_EQ(group->parentTask()->notifier()->taskQuantum(), 0.5);

    callOperation(*aTask, "scheduleTask");
    attributeTextIs(*root, "suspended", "True");
    root->handleSchedulerRun();
    EXPECT_EQ(aTask->taskRun(), 0u);
    root->takeRequests();
    attributeTextIs(*root, "suspended", "False");
    EXPECT_EQ(root->takeRequests(), 1u);
    root->handleSchedulerRun();
    EXPECT_EQ(attributeText(*aTask, "taskRun"), "1");

    callOperation(*aTimerTask, "scheduleTaskDelay", {"2.0"});
    EXPECT_EQ(callOperation(*aTimerTask, "currentExpirationTime"), "2");
    attributeTextIs(*aTimerTask, "taskSuspendedForTest", "True");
    EXPECT_EQ(callOperation(*aTimerTask, "taskStatus"), Mox::valueToStrep(aTimerTask->taskStatus()));
    callOperation(*root, "clearHistory");
    EXPECT_EQ(root->history().begin(), root->history().end());

    callOperation(*aTimerTask, "stopTimerTask");
    for (char const* delay : {"3.0", "4.0"})
        callOperation(*aTimerTask, "scheduleTaskDelayedPrivate", {delay, "False"});
    EXPECT_EQ(callOperation(*aTimerTask, "currentExpirationTime"), "3");
    callOperation(*aTimerTask, "scheduleTaskDelayedPrivate", {"4.0", "True"});
    EXPECT_EQ(callOperation(*aTimerTask, "currentExpirationTime"), "4");
    EXPECT_THAT(refusalOfCall(*aTimerTask, "scheduleTaskDelayedPrivate", {"float('inf')", "True"}),
                HasSubstr("not finite"));

    task("mortal");
    callOperation(*root, "deadTaskStatsDel", {"'mortal'"});
    callOperation(*root, "deadTasksPerPriorityDel", {"'normal'"});
    EXPECT_TRUE(root->deadTaskStats().empty());
    EXPECT_TRUE(root->deadTasksPerPriority().empty());
}

TEST_F(LiveAttributesTest, TypeOfAnApplicationHasTheAttributesOfItsBases) {
    Mox::Ptr<CountingTaskForTen> const counting = new CountingTaskForTen(root);
    attributeTextIs(*counting, "limit", "10");
    EXPECT_EQ(counting->limit(), 10u);
    attributeTextIs(*counting, "taskQuantum", "0.25");
    EXPECT_EQ(counting->taskQuantum(), 0.25);
    EXPECT_THAT(refusal(*counting, "taskQuantum", "2.0"), StartsWith("CountingTaskForTen::taskQuantum: "));
    EXPECT_EQ(refusal(*aTask, "limit", "1"), "Kel::Task has no attribute 'limit'");
}

TEST_F(LiveAttributesTest, MessagesNameTypeAttributeAndProblem) {
    struct Case {
        Mox::Subject subject;
        char const* attribute;
        char const* text;
        char const* message;
    };
    for (Case const& c : {
             Case{*aTask, "nothing", "1", "Kel::Task has no attribute 'nothing'"},
             Case{*aTask, "taskQuantum", "fast",
                  "Kel::Task::taskQuantum: 'fast' is no double: expected float"},
             Case{*aTask, "taskQuantum", "1.5",
                  "Kel::Task::taskQuantum: 1.5 is not within 1e-09 and 1.0 seconds"},
             Case{*aTask, "taskQuantum", "0.5s",
                  "Kel::Task::taskQuantum: '0.5s' is no double: junk at column 3 deserializing double"},
             Case{*aTimerTask, "taskRun", "-1",
                  "Kel::TimerTask::taskRun: '-1' is no Mox::U32: expected a number"},
             Case{*root, "schedulerHistoryMaxAge", "5",
                  "Kel::TaskSchedulerRoot::schedulerHistoryMaxAge: a constant"},
             Case{*aTask, "taskName", "'x'", "Kel::Task::taskName: read only"},
             Case{*root, "tasksRegistered", "None",
                  "null _tasksRegistered parameter to mutator for Kel::TaskScheduler::tasksRegistered not "
                  "allowed"},
             Case{*bareRoot, "schedulerHasRunnableTasks", "True",
                  "Kel::TaskSchedulerRoot::schedulerHasRunnableTasks: nothing runs the scheduler: it is "
                  "neither a "
                  "driver nor a group"},
         })
        EXPECT_EQ(refusal(c.subject, c.attribute, c.text), c.message);

    EXPECT_EQ(refusalOfCall(*root, "explode"), "Kel::TaskSchedulerRoot has no operation 'explode'");
    EXPECT_EQ(refusalOfCall(*root, "clearHistory", {"1"}),
              "Kel::TaskSchedulerRoot::clearHistory: takes 0 arguments, not 1");
    EXPECT_EQ(refusalOfCall(*aTimerTask, "scheduleTaskDelay", {"float('nan')"}),
              "Kel::TimerTask::scheduleTaskDelay: the delay is no number");
    EXPECT_EQ(refusalOfCall(*aTimerTask, "scheduleTaskJitterDown", {"10.0", "101"}),
              "Kel::TimerTask::scheduleTaskJitterDown: the percentage is above 100");
    EXPECT_EQ(refusalOfCall(*root, "runTaskCount", {"'oneBeyondLast'"}),
              "Kel::TaskSchedulerRoot::runTaskCount: 'oneBeyondLast' is no priority of a task");

    root->resetStats();
    root->resetStatsTask()->notifierIs(nullptr);
    EXPECT_EQ(refusalOfCall(*root, "resetStats"), "null ValidPtr");
}

TEST_F(LiveAttributesTest, EntityThatCouldNotRunIsRefused) {
    Mox::Ptr<Task> const orphan = [this] {
        root->resetStats();
        return root->resetStatsTaskDel();
    }();
    EXPECT_EQ(attributeText(*orphan, "taskScheduler"), "None");
    EXPECT_EQ(refusalOfCall(*orphan, "scheduleTask"),
              "Kel::Task::scheduleTask: the task has lost its scheduler");
    attributeTextIs(*orphan, "taskSuspendedForTest", "True");
    EXPECT_THAT(refusal(*orphan, "taskSuspendedForTest", "False"), HasSubstr("lost its scheduler"));

    auto const parentTask = group->parentTaskDel();
    EXPECT_THAT(refusalOfCall(*group, "resetStats"), HasSubstr("the group has no parent task"));
    EXPECT_EQ(refusalOfCall(*parentTask, "resetStats"), "");
    EXPECT_EQ(group->resetStatsTask(), nullptr);
}

TEST_F(LiveAttributesTest, ResetOfADrivenRootLeavesOutADetachedGroup) {
    auto const below = Kel::taskGroupFactory("below", TaskPriority::low, false, loopRoot);
    auto const parentTask = below->parentTaskDel();
    auto const other = Kel::taskFactory(loopRoot, TaskPriority::low, "other");
    parentTask->taskWorkCountIs(5);
    other->taskWorkCountIs(5);
    callOperation(*loopRoot, "resetStats");
    for (int turn = 0; turn < 10; ++turn)
        loop->runOnce();
    EXPECT_EQ(parentTask->taskWorkCount() + other->taskWorkCount(), 0u);
    EXPECT_EQ(below->resetStatsTask(), nullptr);
}

TEST_F(LiveAttributesTest, WhatIsDueLaterIsRefusedWhereNothingCouldRunIt) {
    bareRoot->timerWheelIs(root->timerWheel());
    EXPECT_THAT(refusalOfCall(*bareRoot, "trimHistoryTaskSchedule"), HasSubstr("nothing runs the scheduler"));

    auto const resetTask = bareRoot->resetStatsTaskIs(bareRoot, TaskPriority::normal, "reset");
    for (char const* operation : {"taskRunFromTest", "scheduleTask"})
        EXPECT_THAT(refusalOfCall(*resetTask, operation), HasSubstr("nothing runs the scheduler"));
    EXPECT_THAT(refusal(*resetTask, "taskRun", "5"), HasSubstr("nothing runs the scheduler"));
}

TEST_F(LiveAttributesTest, ParentTasksInEachOthersGroupsAreScheduledAsTheyAreInCode) {
    auto const other = Kel::taskGroupFactory("other", TaskPriority::low, false, root);
    group->parentTaskIs(Kel::taskGroupParentTaskFactory(other, TaskPriority::low, "a", group.ptr()));
    other->parentTaskIs(Kel::taskGroupParentTaskFactory(group, TaskPriority::low, "b", other.ptr()));
    auto const inside = Kel::taskFactory(group, TaskPriority::low, "inside");
    EXPECT_EQ(refusalOfCall(*inside, "scheduleTask"), "");
    EXPECT_TRUE(group->parentTask()->notifier()->taskScheduled());
    EXPECT_TRUE(other->parentTask()->notifier()->taskScheduled());
    group->parentTaskDel(); // who stand in each other hold each other
    other->parentTaskDel();
}

TEST_F(LiveAttributesTest, RefusedResetOfAParentTaskClearsNothing) {
    auto const parentTask = group->parentTask()->notifier();
    parentTask->taskWorkCountIs(5);
    group->resetStats();
    group->resetStatsTask()->notifierIs(nullptr);
    EXPECT_EQ(refusalOfCall(*parentTask, "resetStats"),
              "Kel::TaskGroupParentTask::resetStats: null ValidPtr");
    EXPECT_EQ(parentTask->taskWorkCount(), 5u);
}

TEST_F(LiveAttributesTest, CollectionsAreReadByKey) {
    Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*root);
    EXPECT_EQ(attributeText(*root, "tasksRegistered"), "4");
    for (String const& key : type.keys(*root, "tasksRegistered"))
        EXPECT_THAT(type.entryText(*root, "tasksRegistered", key), HasSubstr(key.substr(1)));
    EXPECT_THROW(type.entryText(*root, "tasksRegistered", "@0x10"), Mox::RangeException);
    EXPECT_THROW(type.keys(*root, "suspended"), Mox::RangeException);

    EXPECT_EQ(type.entryText(*root, "tasksPerPriority", "'normal'"), "3");
    task("mortal");
    EXPECT_THAT(type.keys(*root, "deadTaskStats"), ElementsAre("'mortal'"));
    EXPECT_THAT(type.entryText(*root, "deadTaskStats", "'mortal'"), HasSubstr("'taskDeadCount': 1"));
    EXPECT_EQ(type.keys(*root, "taskScheduler").size(), 2u);
    EXPECT_THAT(attributeText(*group, "parentTask"), StartsWith("'Kel::TaskGroupParentTask@0x"));
}

TEST_F(LiveAttributesTest, ForeignThreadIsRefused) {
    std::string message;
    std::thread([&] { message = refusal(*aTask, "taskQuantum", "0.5"); }).join();
    EXPECT_EQ(message, "Kel::Task::taskQuantum: this thread is not the tree's");
}
