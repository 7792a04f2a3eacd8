#include <mox/AttributeTable.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

#include <gmock/gmock.h>

#include <cmath>
#include <set>
#include <sstream>
#include <thread>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using Mox::attributeText;
using Mox::attributeTextIs;
using Mox::callOperation;
using Mox::String;
using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::refusal;

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

/// One entity of each type, in trees that a test runs by hand or lets run, and in one that nobody runs.
struct LiveAttributesTest : TestSupport::HandTreeTest {
    static std::string refused(Mox::Subject const& subject, std::string_view attribute, String const& text) {
        return refusal([&] { attributeTextIs(subject, attribute, text); });
    }
    static std::string refusedCall(Mox::Subject const& subject, std::string_view operation,
                                   std::vector<String> const& arguments = {}) {
        return refusal([&] { callOperation(subject, operation, arguments); });
    }
    Mox::U32 errors() const {
        return root->moxAuditErrors(1) + bareRoot->moxAuditErrors(1) + loopRoot->moxAuditErrors(1);
    }

    Mox::Ptr<Task> const aTask = task("idle"), aScheduledTask = task("scheduled");
    Mox::Ptr<Kel::TimerTask> const aTimerTask = timerTask("timer");
    Mox::Ptr<Kel::TaskGroup> const group = Kel::taskGroupFactory("group", TaskPriority::low, false, root);
    Mox::Ptr<Kel::TaskGroupParentTask> const parentTask = group->parentTask()->notifier();
    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const loopRoot = Kel::taskSchedulerEventLoopFactory("loop", loop);
    Mox::Ptr<Kel::TaskSchedulerMoxActivity> const activityRoot =
        Kel::taskSchedulerMoxActivityFactory("activity");
    Mox::Ptr<Kel::TaskSchedulerRoot> const bareRoot = Kel::taskSchedulerRootFactory("bare");
    Mox::Ptr<Task> const taskOfBareRoot = Kel::taskFactory(bareRoot, TaskPriority::normal, "t");
    Mox::Ptr<Kel::TaskScheduler> const bareScheduler =
        Kel::TaskScheduler::TaskSchedulerIs("scheduler", bareRoot.ptr());
    Mox::Ptr<Kel::TaskGroup> const groupOfBareRoot =
        Kel::taskGroupFactory("bare group", TaskPriority::low, true, bareRoot);
    std::vector<Mox::Ptr<Mox::PtrInterface>> const runnable{aTask, aScheduledTask, aTimerTask, root,
                                                            group, parentTask,     loopRoot,   activityRoot};
    std::vector<Mox::Ptr<Mox::PtrInterface>> const bare{taskOfBareRoot, bareRoot, bareScheduler,
                                                        groupOfBareRoot};
};

std::vector<String> split(String const& list) {
    std::vector<String> texts;
    std::istringstream stream(list);
    for (std::string text; std::getline(stream, text, '|');)
        texts.push_back(text);
    return texts;
}

/// Good and bad texts of every type that attributes and arguments have.
std::vector<String> const texts =
    split("True|False|0|1|-1|101|4294967295|4294967296|18446744073709551615|9223372036854775807|"
          "-9223372036854775808|0.25|1.0|1.5|1e-10|-0.0|1e300|float('nan')|float('inf')|-float('inf')|"
          "'normal'|'oneBeyondLast'|'TaskPriority::PriorityEnum(7)'|None|| |1 1|True,|'|@0x10|"
          "@0xffffffffffffffff");

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

TEST_F(LiveAttributesTest, EveryAttributeIsReadAndEveryTextIsTakenOrRefusedWithoutEffect) {
    aScheduledTask->scheduleTask();
    for (auto const* entities : {&runnable, &bare})
        for (auto const& entity : *entities)
            for (Mox::Attribute const* attribute : Mox::typeRegistry().typeOf(*entity).attributes()) {
                SCOPED_TRACE(testing::Message() << entity->fwkType()->name() << "::" << attribute->name);
                bool isTaken = false;
                for (String const& text : texts) {
                    String const before = attributeText(*entity, attribute->name);
                    std::string const problem = refused(*entity, attribute->name, text);
                    String const after = attributeText(*entity, attribute->name);
                    EXPECT_TRUE(problem.empty() ? saysTheSame(attribute->type, text, after) : after == before)
                        << text << " reads " << after << ' ' << problem;
                    isTaken = isTaken || problem.empty();
                }
                bool const isReference = attribute->name == "tasksRegistered";
                EXPECT_EQ(isTaken, attribute->isWritable() && !isReference);
            }
    EXPECT_EQ(errors(), 0u);
}

TEST_F(LiveAttributesTest, EveryOperationIsCalledOrRefused) {
    aScheduledTask->scheduleTask();
    std::set<std::string> const needRun{"requestSchedulerRun", "resetStats", "scheduleTask",
                                        "trimHistoryTaskSchedule"};
    for (auto const* entities : {&runnable, &bare})
        for (auto const& entity : *entities)
            for (Mox::Operation const* operation : Mox::typeRegistry().typeOf(*entity).operations()) {
                SCOPED_TRACE(testing::Message() << entity->fwkType()->name() << "::" << operation->name);
                EXPECT_NE(refusedCall(*entity, operation->name, {"1", "2", "3"}), "");
                bool isCalled = false;
                for (String const& first : texts)
                    for (String const& second : texts) {
                        std::vector<String> arguments{first, second};
                        arguments.resize(operation->parameterTypes.size());
                        isCalled = refusedCall(*entity, operation->name, arguments).empty() || isCalled;
                        if (arguments.size() < 2)
                            break;
                    }
                bool const isTasksOwn = entity == taskOfBareRoot && operation->name == "resetStats";
                EXPECT_EQ(isCalled,
                          entities == &runnable || isTasksOwn || !needRun.contains(operation->name));
            }
    EXPECT_EQ(errors(), 0u);
}

TEST_F(LiveAttributesTest, WritingAndCallingHaveTheirEffects) {
    attributeTextIs(*aTask, "taskQuantum", "0.25");
    attributeTextIs(*group, "taskGroupQuantum", "0.5");
    EXPECT_EQ(aTask->taskQuantum() + parentTask->taskQuantum(), 0.75);

    callOperation(*aTask, "scheduleTask");
    root->takeRequests();
    attributeTextIs(*root, "suspended", "True");
    attributeTextIs(*root, "suspended", "False");
    EXPECT_EQ(root->takeRequests(), 1u);
    root->runUntilIdle();
    EXPECT_EQ(attributeText(*aTask, "taskRun"), "1");

    callOperation(*aTimerTask, "scheduleTaskDelay", {"2.0"});
    callOperation(*aTimerTask, "scheduleTaskDelayedPrivate", {"3.0", "False"});
    EXPECT_EQ(callOperation(*aTimerTask, "currentExpirationTime"), "2");
    callOperation(*aTimerTask, "scheduleTaskDelayedPrivate", {"4.0", "True"});
    EXPECT_EQ(callOperation(*aTimerTask, "currentExpirationTime"), "4");
    callOperation(*aTimerTask, "stopTimerTask");
    EXPECT_EQ(aTimerTask->currentExpirationTime(), Mox::endOfTime);
    EXPECT_EQ(callOperation(*aTimerTask, "taskStatus"), Mox::valueToStrep(aTimerTask->taskStatus()));
    callOperation(*root, "clearHistory");
    EXPECT_TRUE(root->history().empty());
    task("mortal");
    callOperation(*root, "deadTaskStatsDel", {"'mortal'"});
    callOperation(*root, "deadTasksPerPriorityDel", {"'normal'"});
    EXPECT_TRUE(root->deadTaskStats().empty() && root->deadTasksPerPriority().empty());
}

TEST_F(LiveAttributesTest, TypeOfAnApplicationHasTheAttributesOfItsBases) {
    Mox::Ptr<CountingTaskForTen> const counting = new CountingTaskForTen(root);
    attributeTextIs(*counting, "limit", "10");
    attributeTextIs(*counting, "taskQuantum", "0.25");
    EXPECT_EQ(counting->limit(), 10u);
    EXPECT_EQ(counting->taskQuantum(), 0.25);
    EXPECT_THAT(refused(*counting, "taskQuantum", "2.0"), StartsWith("CountingTaskForTen::taskQuantum: "));
    EXPECT_EQ(refused(*aTask, "limit", "1"), "Kel::Task has no attribute 'limit'");
}

TEST_F(LiveAttributesTest, MessagesNameTypeAttributeAndProblem) {
    EXPECT_EQ(refused(*aTask, "taskQuantum", "fast"),
              "Kel::Task::taskQuantum: 'fast' is no double: expected float");
    EXPECT_EQ(refused(*aTask, "taskQuantum", "1.5"),
              "Kel::Task::taskQuantum: 1.5 is not within 1e-09 and 1.0 seconds");
    EXPECT_EQ(refused(*aTask, "taskQuantum", "0.5s"),
              "Kel::Task::taskQuantum: '0.5s' is no double: junk at column 3 deserializing double");
    EXPECT_EQ(refused(*aTimerTask, "taskRun", "-1"),
              "Kel::TimerTask::taskRun: '-1' is no Mox::U32: expected a number");
    EXPECT_EQ(refused(*root, "schedulerHistoryMaxAge", "5"),
              "Kel::TaskSchedulerRoot::schedulerHistoryMaxAge: a constant");
    EXPECT_EQ(refused(*aTask, "taskName", "'x'"), "Kel::Task::taskName: read only");
    EXPECT_THROW(attributeTextIs(*aTask, "taskName", "'x'"), Mox::OperationNotSupportedException);
    EXPECT_EQ(refused(*root, "tasksRegistered", "None"), "null _tasksRegistered parameter to mutator for "
                                                         "Kel::TaskScheduler::tasksRegistered not allowed");
    EXPECT_EQ(refusedCall(*root, "explode"), "Kel::TaskSchedulerRoot has no operation 'explode'");
    EXPECT_EQ(refusedCall(*root, "clearHistory", {"1"}),
              "Kel::TaskSchedulerRoot::clearHistory: takes 0 arguments, not 1");
    EXPECT_EQ(refusedCall(*aTimerTask, "scheduleTaskDelay", {"float('nan')"}),
              "Kel::TimerTask::scheduleTaskDelay: the delay is no number");
    EXPECT_THAT(refusedCall(*aTimerTask, "scheduleTaskDelayedPrivate", {"float('inf')", "True"}),
                HasSubstr("not finite"));
    EXPECT_EQ(refusedCall(*aTimerTask, "scheduleTaskJitterDown", {"10.0", "101"}),
              "Kel::TimerTask::scheduleTaskJitterDown: the percentage is above 100");
    EXPECT_EQ(refusedCall(*root, "runTaskCount", {"'oneBeyondLast'"}),
              "Kel::TaskSchedulerRoot::runTaskCount: 'oneBeyondLast' is no priority of a task");
    std::string fromAbroad;
    std::thread([&] { fromAbroad = refused(*aTask, "taskQuantum", "0.5"); }).join();
    EXPECT_EQ(fromAbroad, "Kel::Task::taskQuantum: this thread is not the tree's");
}

TEST_F(LiveAttributesTest, WhatNothingCouldRunIsRefused) {
    EXPECT_EQ(
        refused(*bareRoot, "schedulerHasRunnableTasks", "True"),
        "Kel::TaskSchedulerRoot::schedulerHasRunnableTasks: nothing runs the scheduler: it is neither a "
        "driver nor a group");
    auto const nothingRuns = HasSubstr("nothing runs the scheduler");
    bareRoot->timerWheelIs(root->timerWheel());
    EXPECT_THAT(refusedCall(*bareRoot, "trimHistoryTaskSchedule"), nothingRuns);
    auto const resetTask = bareRoot->resetStatsTaskIs(bareRoot, TaskPriority::normal, "reset");
    for (char const* operation : {"taskRunFromTest", "scheduleTask"})
        EXPECT_THAT(refusedCall(*resetTask, operation), nothingRuns);
    EXPECT_THAT(refused(*resetTask, "taskRun", "5"), nothingRuns);

    root->resetStats();
    auto const orphan = root->resetStatsTaskDel();
    EXPECT_EQ(attributeText(*orphan, "taskScheduler"), "None");
    EXPECT_THAT(refusedCall(*orphan, "scheduleTask"), HasSubstr("lost its scheduler"));
    attributeTextIs(*orphan, "taskSuspendedForTest", "True");
    EXPECT_THAT(refused(*orphan, "taskSuspendedForTest", "False"), HasSubstr("lost its scheduler"));
}

TEST_F(LiveAttributesTest, RefusedResetClearsNothingAndADetachedGroupIsLeftOut) {
    parentTask->taskWorkCountIs(5);
    group->resetStats();
    group->resetStatsTask()->notifierIs(nullptr);
    EXPECT_EQ(refusedCall(*group, "resetStats"), "null ValidPtr");
    EXPECT_EQ(refusedCall(*parentTask, "resetStats"), "Kel::TaskGroupParentTask::resetStats: null ValidPtr");
    EXPECT_EQ(parentTask->taskWorkCount(), 5u);
    group->resetStatsTaskDel();
    root->runUntilIdle();
    group->parentTaskDel();
    EXPECT_THAT(refusedCall(*group, "resetStats"), HasSubstr("the group has no parent task"));
    EXPECT_EQ(refusedCall(*parentTask, "resetStats"), "");
    EXPECT_EQ(parentTask->taskWorkCount(), 0u);
    EXPECT_EQ(group->resetStatsTask(), nullptr);
}

TEST_F(LiveAttributesTest, ParentTasksInEachOthersGroupsAreScheduledAsTheyAreInCode) {
    auto const other = Kel::taskGroupFactory("other", TaskPriority::low, false, root);
    group->parentTaskIs(Kel::taskGroupParentTaskFactory(other, TaskPriority::low, "a", group.ptr()));
    other->parentTaskIs(Kel::taskGroupParentTaskFactory(group, TaskPriority::low, "b", other.ptr()));
    auto const inside = Kel::taskFactory(group, TaskPriority::low, "inside");
    EXPECT_EQ(refusedCall(*inside, "scheduleTask"), "");
    for (auto const& each : {group, other}) {
        EXPECT_TRUE(each->parentTask()->notifier()->taskScheduled());
        each->parentTaskDel(); // who stand in each other hold each other
    }
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
    EXPECT_THAT(type.keys(*root, "deadTaskStats"), testing::ElementsAre("'mortal'"));
    EXPECT_THAT(type.entryText(*root, "deadTaskStats", "'mortal'"), HasSubstr("'taskDeadCount': 1"));
    EXPECT_EQ(type.keys(*root, "taskScheduler").size(), 2u);
    EXPECT_THAT(attributeText(*group, "parentTask"), StartsWith("'Kel::TaskGroupParentTask@0x"));
}

} // namespace
