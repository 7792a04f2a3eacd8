#include <mox/AttributeTable.h>
#include <registry/detail/ValueText.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

#include <boost/regex.hpp>
#include <gmock/gmock.h>

#include <fcntl.h>
#include <map>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using namespace Mox;
using testing::HasSubstr;
using TestSupport::refusal;
using Entity = Ptr<Mox::PtrInterface>;

/// Types of an application, the derived one first.
Mox::Type const baseType{"CountingTask", &Task::type()}, derivedType{"CountingTaskForTen", &baseType};
Mox::TypeTables const tables([](Mox::TypeRegistry& registry) {
    registry.add(derivedType);
    registry.add(baseType);
});

/// Entities of all types, run by hand or by their drivers.
struct Tree {
    Ptr<TestSupport::HandRoot> const root = TestSupport::HandRoot::HandRootIs();
    Ptr<Task> const task = Kel::taskFactory(root, TaskPriority::normal, "task");
    Ptr<Task> const scheduled = Kel::taskFactory(root, TaskPriority::high, "scheduled");
    Ptr<Kel::TimerTask> const timer = Kel::timerTaskFactory(root, TaskPriority::normal, "timer");
    Ptr<Kel::TaskGroup> const group = Kel::taskGroupFactory("group", TaskPriority::low, true, root);
    Ptr<Kel::TaskGroupParentTask> const parentTask = group->parentTask()->notifier();
    Ptr<Task> const inGroup = Kel::taskFactory(group, TaskPriority::low, "inGroup");
    Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Ptr<Kel::TaskSchedulerEventLoop> const loopRoot = Kel::taskSchedulerEventLoopFactory("loop", loop);
    Ptr<Kel::TaskSchedulerMoxActivity> const activityRoot = Kel::taskSchedulerMoxActivityFactory("activity");
    std::vector<Entity> entities{root,       task,    scheduled, timer,       group,
                                 parentTask, inGroup, loopRoot,  activityRoot};

    Tree() {
        scheduled->scheduleTask();
        for (TaskPriority const priority : {TaskPriority::normal, TaskPriority::high})
            Kel::taskFactory(root, priority, priority == TaskPriority::high ? "1" : "2");
    }

    /// All attributes, all events, when the timer ends.
    std::string state() const {
        std::string text = callOperation(*timer, "currentExpirationTime", {});
        for (auto const& entity : entities)
            for (auto const* attribute : Mox::typeRegistry().typeOf(*entity).attributes())
                text += attribute->name + " " + attributeText(*entity, attribute->name) + "\n";
        for (auto const& event : root->history())
            text += event.display() + "\n";
        return text;
    }
    static std::string withoutAddresses(std::string const& text) {
        return boost::regex_replace(text, boost::regex("0x[0-9a-f]+|(taskKey'?:?|references) [0-9]+"), "@");
    }
};

/// The text of what a getter or an operation gives.
template <class V> String textOf(V const& value) {
    if constexpr (requires { value->notifier(); })
        return value ? Mox::referenceToStrep(value->notifier().ptr()) : "None";
    else if constexpr (
        requires { value.size(), value.c_str(); } || !requires { value.size(); })
        return Mox::AttributeText<V>::write(value);
    else
        return Mox::valueToStrep(Mox::U64{value.size()});
}

/// What is done by name to one tree is done by its functions to another: the trees stay alike.
struct LiveAttributesTest : testing::Test {
    void expectAlike(char const* name, String const& text, String const& expected) {
        EXPECT_EQ(Tree::withoutAddresses(text), Tree::withoutAddresses(expected)) << name;
        EXPECT_EQ(Tree::withoutAddresses(named.state()), Tree::withoutAddresses(direct.state())) << name;
    }
    void calls(Mox::PtrInterface& entity, char const* name, std::vector<String> const& arguments,
               auto const& call) {
        String expected;
        if constexpr (std::is_void_v<decltype(call())>)
            call();
        else
            expected = textOf(call());
        expectAlike(name, callOperation(entity, name, arguments), expected);
    }

    TestSupport::ManualClock steady;
    TestSupport::VirtualTime timers;
    Tree named, direct;
};

// Steps on an entity of both trees
#define ON(entity, ...)                                                                                      \
    do {                                                                                                     \
        [[maybe_unused]] auto& there = *named.entity;                                                        \
        [[maybe_unused]] auto& here = *direct.entity;                                                        \
        __VA_ARGS__;                                                                                         \
    } while (false)
#define READ(attribute) expectAlike(#attribute, attributeText(there, #attribute), textOf(there.attribute()))
#define WRITE_BY(attribute, setter, value, converted)                                                        \
    attributeTextIs(there, #attribute, textOf(value)), here.setter(converted), READ(attribute)
#define WRITE(attribute, value) WRITE_BY(attribute, attribute##Is, value, value)
#define WRITE_SECONDS(attribute, value)                                                                      \
    WRITE_BY(attribute, attribute##InternalIs, value, Mox::toNanoseconds(value))
#define CALL(operation, ...)                                                                                 \
    calls(there, #operation, textsOf(__VA_ARGS__), [&] { return here.operation(__VA_ARGS__); })
std::vector<String> textsOf(auto const&... values) { return {textOf(values)...}; }

} // namespace

/// Numbers differ, so that one that is another's shows.
TEST_F(LiveAttributesTest, ByNameEverythingIsAsInCode) {
    Kel::TaskTimeStamp const earlier(boost::chrono::seconds(5)), later(boost::chrono::seconds(6));
    TaskPriority const high = TaskPriority::high, normal = TaskPriority::normal;
    auto const runs = [this] {
        steady.advance(std::chrono::seconds(3));
        named.root->runUntilIdle();
        direct.root->runUntilIdle();
    };
    steady.advance(std::chrono::milliseconds(6500));
    ON(scheduled, expectAlike("linked", attributeText(there, "taskRunQueueLink"), "True"));
    ON(task, WRITE(taskWorkCount, Mox::U64{1} << 40), WRITE(taskQuantumViolation500, 5u),
       WRITE(taskQuantumViolation200, 2u), WRITE(taskRun, 4294967295u), WRITE(taskQuantum, 0.25),
       WRITE(taskLastAddedToRunQueueTimeStamp, earlier), WRITE(taskLastRunTimeStamp, later),
       WRITE_SECONDS(taskLastSchedulingLatency, 0.5), WRITE_SECONDS(taskTotalRunTime, 2.0),
       WRITE_SECONDS(taskSchedulingLatencyHighWaterMark, 1.9e-9), WRITE(taskBusy, true),
       WRITE(taskCurrentlyRunning, true), WRITE(taskCurrentlyRunning, false),
       WRITE(taskForceYieldInTest, true), WRITE(taskForceYieldInTest, false),
       WRITE(taskSuspendedForTest, true), CALL(scheduleTask), WRITE(taskSuspendedForTest, false),
       WRITE(hasNotificationActive, false), WRITE(hasNotificationActive, true), CALL(taskScheduled),
       CALL(getStats), CALL(taskStatus), CALL(unscheduleTask), CALL(taskScheduled), CALL(taskShouldYield),
       CALL(scheduleTask), CALL(taskWorkCountInc, Mox::U64{3}), CALL(taskRunInc, 2u), READ(taskScheduler),
       READ(taskPriority), READ(taskName), READ(taskKey), READ(references), READ(taskMagicNumber),
       READ(taskMagicNumberConstructed), READ(taskMagicNumberDestroyed), CALL(taskRunFromTest));
    ON(root, CALL(requestSchedulerRun), CALL(runnableTaskCount, high), runs(), CALL(runTaskCount, high),
       CALL(runTaskCount, normal));
    ON(task, READ(taskRunTimeHighWaterMark));
    ON(timer, CALL(scheduleTaskDelay, 2.0), READ(timer), CALL(currentExpirationTime), CALL(stopTimerTask),
       CALL(scheduleTaskLowestDelay, 3.0), CALL(scheduleTaskDelayedPrivate, 4.0, true),
       CALL(scheduleTaskDelayedPrivate, 5.0, false), CALL(stopTimerTask), WRITE(timerTaskInitComplete, false),
       WRITE(timerTaskInitComplete, true), CALL(scheduleTaskJitterUp, 2.0, Mox::U8{0}), CALL(stopTimerTask),
       CALL(scheduleTaskJitterDown, 3.0, Mox::U8{0}));
    ON(root, READ(timerWheelTickInMsec), READ(priorityRunFactor), READ(schedulerName), READ(root),
       READ(tasksRegistered), READ(tasksPerPriority), READ(taskScheduler), READ(timerWheel),
       READ(schedulerHistoryMaxAge), READ(schedulerThread), READ(schedulerPid),
       WRITE(schedulerLastScheduleTimeStamp, earlier), WRITE(schedulerLastRunTimeStamp, later),
       WRITE_SECONDS(schedulerMaxSchedulerSlip, 0.75), WRITE(resetStatsTaskBookmark, Kel::TaskKey(16)),
       CALL(queueStats), WRITE(suspended, true), WRITE(suspended, false),
       WRITE(schedulerHasRunnableTasks, true), WRITE(schedulerHasRunnableTasks, false),
       WRITE(trimHistoryEnabled, true), CALL(trimHistoryTaskSchedule), READ(trimHistoryTask),
       CALL(trimHistoryTaskDel), READ(trimHistoryTask), CALL(resetStats), READ(resetStatsTask),
       CALL(attemptLowerPriorityBump, normal, 8u), CALL(attemptLowerPriorityBump, high, 7u),
       CALL(sanityCheckCurrentRunningThread), CALL(resetStatsTaskDel), CALL(auditErrors, 1u),
       CALL(moxAuditErrors, 1u), READ(deadTaskStats), READ(deadTasksPerPriority),
       CALL(deadTaskStatsDel, String("1")), CALL(deadTasksPerPriorityDel, normal), CALL(deadTaskStatsDelAll),
       CALL(deadTasksPerPriorityDelAll));
    ON(task, CALL(resetStats));
    ON(root, runs(), runs(), runs(), runs(), CALL(handleTrimHistoryTaskRun), CALL(clearHistory));
    ON(group, READ(taskGroupName), READ(taskGroupPriority), READ(enforceTaskGroupPriority),
       READ(parentScheduler), READ(parentTask), WRITE(taskGroupQuantum, 0.125));
    ON(parentTask, READ(taskGroup));
    ON(loopRoot, READ(evLoop), READ(clock), READ(eventLoopKeepAliveClock), CALL(keepEventLoopAlive));
    ON(activityRoot, READ(clock));
}

namespace {

/// Values of each type, good and bad ones.
std::vector<String> textsOf(std::string const& type) {
    using Texts = std::vector<String>;
    Kel::TaskTimeStamp const now = Mox::SteadyClock::now();
    std::map<std::string, Texts> const all{
        {"bool", {"True", "False"}},
        {"Mox::U8", {"0", "100", "101"}},
        {"Mox::U32", {"0", "1", "4294967295"}},
        {"Mox::U64", {"0", "18446744073709551615"}},
        {"Mox::String", {"''", "'t'"}},
        {"double",
         {"0.0", "0.25", "1.0", "1.0000000005", "1.000000001", "1e-09", "9e-10", "-1.0", "1e3", "9.3e9",
          "float('nan')", "float('inf')", "-float('inf')"}},
        {"Kel::TaskPriority",
         {"'absolute'", "'scavenge'", "'oneBeyondLast'", "'TaskPriority::PriorityEnum(7)'"}},
        {"Kel::TaskTimeStamp", {"0", "-1", textOf(now), textOf(now + boost::chrono::nanoseconds(1))}},
        {"Kel::TaskKey", {"0", "18446744073709551615"}},
        {Mox::AttributeText<Task*>::type(), {"None", "'t'"}},
    };
    return all.at(type);
}

std::vector<std::vector<String>> argumentsOf(Mox::Operation const& operation) {
    std::vector<std::vector<String>> lists{{}};
    for (std::string const& parameter : operation.parameterTypes)
        for (auto const& shorter : std::exchange(lists, {}))
            for (String const& text : textsOf(parameter)) {
                lists.push_back(shorter);
                lists.back().push_back(text);
            }
    return lists;
}

/// Seconds are cut to whole nanoseconds. Stamps come from a clock.
bool isKept(Mox::Attribute const& attribute, String const& text, String const& read) {
    if (attribute.type == "Kel::TaskTimeStamp")
        return text == "0" || text == textOf(Mox::SteadyClock::now());
    if (attribute.type != "double")
        return read == text;
    double written = 0, kept = 0;
    Mox::strepToValue(text, &written);
    Mox::strepToValue(read, &kept);
    return std::isfinite(written) && std::abs(written - kept) <= 1e-9;
}

enum Outcome { went, wasRefused, endedTheProcess };

/// What a child process has of it. It ends there, too, if what is refused has changed anything.
Outcome inChild(Tree const& tree, std::string const& before, std::function<void()> const& act) {
    pid_t const child = fork();
    if (child != 0) {
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? static_cast<Outcome>(WEXITSTATUS(status)) : endedTheProcess;
    }
    alarm(2);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    try {
        act();
    } catch (Mox::Exception const&) {
        _exit(tree.state() == before ? wasRefused : endedTheProcess);
    }
    _exit(went);
}

/// Trees that nobody runs, and what has lost what it needs.
struct RefusalTest : LiveAttributesTest {
    RefusalTest() {
        TaskPriority const low = TaskPriority::low;
        auto const bare = Kel::taskSchedulerRootFactory("bare"),
                   withWheel = Kel::taskSchedulerRootFactory("withWheel"),
                   suspendedRoot = Kel::taskSchedulerRootFactory("suspended");
        withWheel->timerWheelIs(named.root->timerWheel());
        suspendedRoot->suspendedIs(true);
        auto const loose = Kel::taskGroupFactory("loose", low, false, named.root),
                   lostTask = Kel::taskGroupFactory("lostTask", low, false, named.root);
        auto const waits = Kel::taskFactory(loose, low, "waits"),
                   sleeps = Kel::taskFactory(loose, low, "sleeps"),
                   suspended = Kel::taskFactory(bare, low, "suspended");
        waits->scheduleTask();
        sleeps->taskSuspendedForTestIs(true);
        sleeps->taskRunFromTest(); // just now
        suspended->taskSuspendedForTestIs(true);
        auto const parentOfLoose = loose->parentTask()->notifier(),
                   parentOfLost = lostTask->parentTask()->notifier();
        loose->parentTaskDel();
        parentOfLost->taskWorkCountIs(5);
        lostTask->resetStats();
        lostTask->resetStatsTask()->notifierIs(nullptr);
        direct.root->resetStats();
        auto const noWheel = TestSupport::HandRoot::HandRootIs("noWheel");
        noWheel->timerWheelIs(nullptr);
        noWheel->trimHistoryEnabledIs(true);
        noWheel->schedulerHasRunnableTasksIs(true);
        auto const mox =
            Kel::taskSchedulerEventLoopFactory("mox", Kel::EventLoop::EventLoopIs(Mox::activityManager()));
        auto const full = Kel::taskSchedulerEventLoopFactory("full", named.loop);
        auto const add = [this](auto const&... entity) { (named.entities.push_back(entity), ...); };
        add(bare, withWheel, loose, waits, sleeps, noWheel, lostTask, parentOfLost, parentOfLoose,
            direct.root->resetStatsTaskDel(), mox, suspendedRoot, suspended, full,
            Kel::taskFactory(bare, low, "t"), Kel::taskFactory(loose, low, "t"),
            Kel::taskFactory(full, low, "t"), Kel::timerTaskFactory(withWheel, low, "timer"),
            Kel::TaskScheduler::TaskSchedulerIs("scheduler", bare.ptr()),
            bare->resetStatsTaskIs(bare, low, "reset"), Kel::taskGroupFactory("inBare", low, true, bare));
    }
    /// What comes after it sooner or later.
    void goesOn(Mox::PtrInterface& entity) {
        if (auto const* const task = dynamic_cast<Task*>(&entity))
            task->taskShouldYield();
        for (int i = 0; i < 50; ++i)
            named.root->handleSchedulerRun();
        timers.clock->nowIs(1e11);
        for (int i = 0; i < 3; ++i) {
            named.loop->runOnce();
            timers.manager->runOnce();
        }
        if (entity.moxAuditErrors(1) != 0)
            abort();
    }
    void expectRefusedIfBad(Mox::PtrInterface& entity, std::string const& member,
                            std::vector<String> const& texts, auto const& byName, auto const& inCode) {
        char const* const name = dynamic_cast<Task*>(&entity) ? "taskName" : "schedulerName";
        std::string const what = attributeText(entity, name) + " " + member;
        Outcome const outcome = inChild(named, before, [&] { byName(), goesOn(entity); });
        EXPECT_NE(outcome, endedTheProcess) << what << testing::PrintToString(texts);
        if (outcome == wasRefused && inChild(named, before, [&] { inCode(), goesOn(entity); }) == went)
            cautious.insert(what);
    }
    std::string before;
    std::set<std::string> cautious; // refused although it went well
};

} // namespace

TEST_F(RefusalTest, ByNameExactlyThatIsRefusedWhichWouldEndTheProcess) {
    before = named.state();
    for (auto const& entity : named.entities) {
        Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*entity);
        for (auto const* attribute : type.attributes())
            for (String const& text :
                 attribute->isWritable() ? textsOf(attribute->type) : std::vector<String>()) {
                auto const keeps = [&] {
                    if (!isKept(*attribute, text, attributeText(*entity, attribute->name)))
                        abort();
                };
                expectRefusedIfBad(
                    *entity, attribute->name, {text},
                    [&] { attributeTextIs(*entity, attribute->name, text), keeps(); },
                    [&] { attribute->write(*entity, text), keeps(); });
            }
        for (auto const* operation : type.operations())
            for (auto const& arguments : argumentsOf(*operation))
                expectRefusedIfBad(
                    *entity, operation->name, arguments,
                    [&] { callOperation(*entity, operation->name, arguments); },
                    [&] { operation->call(*entity, arguments); });
    }
    // Known: a quantum for a parent task to come, tasks left on a queue, a reset that is cut short, an alarm
    // that is never.
    EXPECT_THAT(cautious, testing::ElementsAre("'TaskGroup;loose' schedulerHasRunnableTasks",
                                               "'TaskGroup;loose' taskGroupQuantum", "'reset' taskRun",
                                               "'reset' taskRunFromTest", "'reset' taskRunInc",
                                               "'root' schedulerHasRunnableTasks",
                                               "'timer' scheduleTaskDelayedPrivate"));
}

TEST_F(LiveAttributesTest, MessagesNameTypeMemberAndProblem) {
    auto const& types = Mox::typeRegistry();
    EXPECT_TRUE(types.type("CountingTaskForTen").isOrExtends(types.type("CountingTask")));
    Task& task = *named.task;
    using Row = std::tuple<char const*, char const*, char const*>;
    for (auto const& [member, text, message] :
         {Row{"taskQuantum", "1.5", "::taskQuantum: 1.5 is not within 1e-09 and 1.0 seconds"},
          Row{"taskRun", "-1", "::taskRun: '-1' is no Mox::U32: expected a number"},
          Row{"taskQuantumDefault", "5", "::taskQuantumDefault: a constant"},
          Row{"taskName", "'x'", "::taskName: read only"},
          Row{"taskNames", "'x'", " has no attribute 'taskNames'"}})
        EXPECT_EQ(refusal([&, &name = member, &value = text] { attributeTextIs(task, name, value); }),
                  std::string("Kel::Task") + message);
    task.taskRunFromTest();
    auto event = *named.root->history().begin();
    EXPECT_EQ(attributeText(Mox::Subject::ofValue(event), "task"), "'task'");
    steady.advance(std::chrono::nanoseconds(-1));
    auto const call = [&](char const* name) { return refusal([&] { callOperation(task, name, {}); }); };
    EXPECT_THAT(call("explode"), HasSubstr("has no operation 'explode'"));
    EXPECT_THAT(call("taskRunInc"), HasSubstr("takes 1 arguments, not 0"));
    EXPECT_THAT(refusal([&] { callOperation(task, "taskRunInc", {"1", "1"}); }), HasSubstr("not 2"));
    for (Seconds const written : {15e-9, 3e-8, -15e-9, -3e-8, 0.123456789}) {
        attributeTextIs(task, "taskTotalRunTime", Mox::valueToStrep(written));
        EXPECT_EQ(task.taskTotalRunTime(), written);
    }
    EXPECT_THAT(call("taskShouldYield"), HasSubstr("the clock is behind the last run"));
    std::thread([&] {
        EXPECT_THAT(call("taskStatus"), HasSubstr("this thread is not the tree's"));
        for (Mox::PtrInterface* const entity : std::initializer_list<Mox::PtrInterface*>{
                 named.root.ptr(), named.group.ptr(), named.timer.ptr()})
            EXPECT_THAT(refusal([&] { attributeText(*entity, "hasNotificationActive"); }),
                        HasSubstr("this thread is not"));
    }).join();
}

TEST_F(LiveAttributesTest, ParentTasksInEachOthersGroupsAreScheduledAsTheyAreInCode) {
    TaskPriority const low = TaskPriority::low;
    auto const a = Kel::taskGroupFactory("a", low, false, named.root),
               b = Kel::taskGroupFactory("b", low, false, named.root);
    a->parentTaskIs(Kel::taskGroupParentTaskFactory(b, low, "a", a.ptr()));
    b->parentTaskIs(Kel::taskGroupParentTaskFactory(a, low, "b", b.ptr()));
    callOperation(*Kel::taskFactory(a, low, "t"), "scheduleTask");
    EXPECT_TRUE(b->parentTask()->notifier()->taskScheduled());
    a->parentTaskDel(); // who stand in each other hold each other
}
