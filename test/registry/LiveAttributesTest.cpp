#include <mox/AttributeTable.h>
#include <registry/detail/ValueText.h>

#include <group/TaskGroup.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <map>
#include <regex>
#include <set>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using Mox::attributeText;
using Mox::attributeTextIs;
using Mox::callOperation;
using Mox::Ptr;
using Mox::String;
using testing::HasSubstr;
using TestSupport::refusal;
using Entity = Ptr<Mox::PtrInterface>;

/// A task of an application, with an attribute of its own, which its own table makes known.
class CountingTask : public Task {
  public:
    explicit CountingTask(Ptr<Kel::TaskScheduler> const& scheduler)
        : Task(scheduler, TaskPriority::normal, "counting") {}
    static Mox::Type const& type() {
        static Mox::Type const type{"CountingTask", &Task::type()};
        return type;
    }
    Mox::Type const* fwkType() const override { return &type(); }
    Mox::U32 limit = 0;
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
    Mox::AttributeTable<CountingTask>(registry).writable(
        "limit", &CountingTask::limit, [](CountingTask& task, Mox::U32 limit) { task.limit = limit; });
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

    Tree() { scheduled->scheduleTask(); }

    /// All attributes, all events; without addresses.
    std::string state() const {
        std::string text;
        for (auto const& entity : entities)
            for (auto const* attribute : Mox::typeRegistry().typeOf(*entity).attributes())
                text += attribute->name + " " + attributeText(*entity, attribute->name) + "\n";
        for (auto const& event : root->history())
            text += event.display() + "\n";
        return withoutAddresses(text);
    }
    static std::string withoutAddresses(std::string const& text) {
        return std::regex_replace(text, std::regex("0x[0-9a-f]+|(taskKey'?:?|references) [0-9]+"), "@");
    }
};

/// The text of what a getter or an operation gives.
template <class V> String textOf(V const& value) {
    if constexpr (requires { value->notifier(); })
        return value ? Mox::referenceToStrep(value->notifier().ptr()) : "None";
    else if constexpr (requires { value.find(value.begin()->first); })
        return Mox::valueToStrep(Mox::U64{value.size()});
    else if constexpr (std::is_same_v<V, Kel::TaskScheduler::TasksRegistered>)
        return Mox::valueToStrep(Mox::U64{value.size()});
    else
        return Mox::AttributeText<V>::write(value);
}

struct LiveAttributesTest : testing::Test {
    /// Where the member is declared: the same row serves all types that extend that one.
    static std::string declaredAs(Mox::TypeEntry const* type, std::string const& name) {
        while (type->base() && (type->base()->findAttribute(name) || type->base()->findOperation(name)))
            type = type->base();
        return type->name() + "::" + name;
    }
    void covered(Mox::PtrInterface& entity, char const* name) {
        rows.insert(declaredAs(&Mox::typeRegistry().typeOf(entity), name));
        EXPECT_EQ(named.state(), direct.state()) << name;
    }
    void reads(Mox::PtrInterface& entity, char const* name, String const& expected) {
        EXPECT_EQ(attributeText(entity, name), expected) << name;
        covered(entity, name);
    }
    void calls(Mox::PtrInterface& entity, char const* name, std::vector<String> const& arguments,
               auto const& call) {
        String expected;
        if constexpr (std::is_void_v<decltype(call())>)
            call();
        else
            expected = textOf(call());
        EXPECT_EQ(Tree::withoutAddresses(callOperation(entity, name, arguments)),
                  Tree::withoutAddresses(expected))
            << name;
        covered(entity, name);
    }

    TestSupport::ManualClock steady;
    TestSupport::VirtualTime timers;
    Tree named, direct;
    std::set<std::string> rows;
};

// What is done by name to one tree is done by its functions to another: the trees stay alike.
#define READ(entity, attribute) reads(*named.entity, #attribute, textOf(named.entity->attribute()))
#define WRITE_BY(entity, attribute, setter, text, value)                                                     \
    attributeTextIs(*named.entity, #attribute, text);                                                        \
    direct.entity->setter(value);                                                                            \
    READ(entity, attribute)
#define WRITE(entity, attribute, value) WRITE_BY(entity, attribute, attribute##Is, textOf(value), value)
#define WRITE_SECONDS(entity, attribute, value)                                                              \
    WRITE_BY(entity, attribute, attribute##InternalIs, textOf(value), Mox::toNanoseconds(value))
#define CALL(entity, operation)                                                                              \
    calls(*named.entity, #operation, {}, [&] { return direct.entity->operation(); })
#define CALL_WITH(entity, operation, ...)                                                                    \
    calls(*named.entity, #operation, textsOf(__VA_ARGS__),                                                   \
          [&] { return direct.entity->operation(__VA_ARGS__); })
std::vector<String> textsOf(auto const&... values) { return {textOf(values)...}; }

} // namespace

TEST_F(LiveAttributesTest, ByNameEverythingIsAsInCode) {
    Kel::TaskTimeStamp const earlier(boost::chrono::seconds(5)), later(boost::chrono::seconds(6));
    TaskPriority const high = TaskPriority::high, normal = TaskPriority::normal;
    steady.advance(std::chrono::milliseconds(1500));
    // Numbers that differ, so that one that is another's shows
    WRITE(task, taskWorkCount, Mox::U64{1} << 40), WRITE(task, taskQuantumViolation500, 5u);
    WRITE(task, taskQuantumViolation200, 2u), WRITE(task, taskRun, 4294967295u),
        WRITE(task, taskQuantum, 0.25);
    WRITE(task, taskLastAddedToRunQueueTimeStamp, earlier), WRITE(task, taskLastRunTimeStamp, later);
    WRITE_SECONDS(task, taskLastSchedulingLatency, 0.5), WRITE_SECONDS(task, taskTotalRunTime, 2.0);
    WRITE_SECONDS(task, taskSchedulingLatencyHighWaterMark, 1.9e-9);
    WRITE(task, taskBusy, true), WRITE(task, taskCurrentlyRunning, true),
        WRITE(task, taskCurrentlyRunning, false);
    WRITE(task, taskForceYieldInTest, true), WRITE(task, taskForceYieldInTest, false);
    WRITE(task, taskSuspendedForTest, true), CALL(task, scheduleTask),
        WRITE(task, taskSuspendedForTest, false);
    WRITE(task, hasNotificationActive, false), WRITE(task, hasNotificationActive, true);
    CALL(task, taskScheduled), CALL(task, getStats), CALL(task, taskStatus), CALL(task, unscheduleTask);
    CALL(task, taskScheduled), CALL(task, taskShouldYield), CALL(task, scheduleTask);
    CALL_WITH(task, taskWorkCountInc, Mox::U64{3}), CALL_WITH(task, taskRunInc, 2u);
    READ(task, taskScheduler), READ(task, taskPriority), READ(task, taskName), READ(task, taskKey);
    READ(task, taskMagicNumber), READ(task, taskMagicNumberConstructed), READ(task, taskMagicNumberDestroyed);
    READ(task, references), reads(*named.task, "taskQuantumDefault", "0.02");
    reads(*named.scheduled, "taskRunQueueLink", "True");
    CALL(task, taskRunFromTest);
    steady.advance(std::chrono::seconds(3));
    CALL(root, requestSchedulerRun), READ(root, schedulerHasRunnableTasks);
    CALL_WITH(root, runnableTaskCount, high), CALL_WITH(root, runnableTaskCount, normal);
    for (Tree* tree : {&named, &direct})
        tree->root->runUntilIdle();
    CALL_WITH(root, runTaskCount, high), CALL_WITH(root, runTaskCount, normal),
        READ(task, taskRunTimeHighWaterMark);

    CALL_WITH(timer, scheduleTaskDelay, 2.0), CALL(timer, currentExpirationTime);
    CALL_WITH(timer, scheduleTaskLowestDelay, 3.0), CALL(timer, currentExpirationTime);
    CALL_WITH(timer, scheduleTaskDelayedPrivate, 4.0, true), CALL(timer, currentExpirationTime);
    CALL_WITH(timer, scheduleTaskDelayedPrivate, 5.0, false), CALL(timer, currentExpirationTime);
    READ(timer, timer), CALL(timer, stopTimerTask), CALL(timer, currentExpirationTime);
    WRITE(timer, timerTaskInitComplete, false), WRITE(timer, timerTaskInitComplete, true);
    CALL_WITH(timer, scheduleTaskJitterUp, 2.0, Mox::U8{0}), CALL(timer, currentExpirationTime);
    CALL_WITH(timer, scheduleTaskJitterDown, 3.0, Mox::U8{0}), CALL(timer, currentExpirationTime);

    READ(root, timerWheelTickInMsec), READ(root, priorityRunFactor), READ(root, schedulerName),
        READ(root, root);
    READ(root, tasksRegistered), READ(root, tasksPerPriority), READ(root, taskScheduler),
        READ(root, timerWheel);
    READ(root, schedulerHistoryMaxAge), READ(root, schedulerThread), READ(root, schedulerPid);
    WRITE(root, schedulerLastScheduleTimeStamp, earlier), WRITE(root, schedulerLastRunTimeStamp, later);
    WRITE_BY(root, schedulerMaxSchedulerSlip, schedulerMaxSchedulerSlipInternalIs, "0.75",
             Mox::toNanoseconds(0.75));
    WRITE(root, resetStatsTaskBookmark, Kel::TaskKey(16)), CALL(root, queueStats);
    WRITE(root, suspended, true), WRITE(root, suspended, false), WRITE(root, schedulerHasRunnableTasks, true);
    WRITE(root, schedulerHasRunnableTasks, false), WRITE(root, trimHistoryEnabled, true);
    CALL(root, trimHistoryTaskSchedule), READ(root, trimHistoryTask), CALL(root, trimHistoryTaskDel);
    READ(root, trimHistoryTask), READ(root, resetStatsTask), CALL(root, resetStats),
        READ(root, resetStatsTask);
    CALL_WITH(root, attemptLowerPriorityBump, normal, 8u),
        CALL_WITH(root, attemptLowerPriorityBump, high, 7u);
    CALL(root, sanityCheckCurrentRunningThread), CALL(root, resetStatsTaskDel),
        CALL_WITH(root, auditErrors, 1u);
    CALL_WITH(root, moxAuditErrors, 1u), CALL(task, resetStats), READ(root, resetStatsTask);
    for (Tree* tree : {&named, &direct})
        for (char const* name : {"dead1", "dead2", "dead3"})
            Kel::taskFactory(tree->root, name == std::string_view("dead3") ? high : normal, name);
    READ(root, deadTaskStats), READ(root, deadTasksPerPriority);
    CALL_WITH(root, deadTaskStatsDel, String("dead1")), CALL_WITH(root, deadTasksPerPriorityDel, normal);
    READ(root, deadTaskStats), READ(root, deadTasksPerPriority), CALL(root, deadTaskStatsDelAll);
    READ(root, deadTaskStats), CALL(root, deadTasksPerPriorityDelAll), READ(root, deadTasksPerPriority);
    steady.advance(std::chrono::seconds(11)), CALL(root, handleTrimHistoryTaskRun), CALL(root, clearHistory);

    READ(group, taskGroupName), READ(group, taskGroupPriority), READ(group, enforceTaskGroupPriority);
    READ(group, parentScheduler), READ(group, parentTask), WRITE(group, taskGroupQuantum, 0.125);
    READ(parentTask, taskGroup), READ(loopRoot, evLoop), READ(loopRoot, clock), READ(activityRoot, clock);
    READ(loopRoot, eventLoopKeepAliveClock), CALL(loopRoot, keepEventLoopAlive);

    std::set<std::string> all;
    for (Mox::TypeEntry const& type : Mox::typeRegistry().types())
        if (type.isOrExtends(Mox::typeRegistry().type("Mox::PtrInterface"))) {
            for (auto const* attribute : type.attributes())
                all.insert(declaredAs(&type, attribute->name));
            for (auto const* operation : type.operations())
                all.insert(declaredAs(&type, operation->name));
        }
    all.erase("CountingTask::limit");
    EXPECT_EQ(rows, all);
}

namespace {

/// Values of each type, good and bad ones.
std::vector<String> textsOf(std::string const& type) {
    using Texts = std::vector<String>;
    std::string const now = textOf(Mox::SteadyClock::now()),
                      later = textOf(Mox::SteadyClock::now() + boost::chrono::nanoseconds(1));
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
        {"Kel::TaskTimeStamp", {"0", "-1", now, later}},
        {"Kel::TaskKey", {"0", "18446744073709551615"}},
        {Mox::AttributeText<Task*>::type(), {"None"}},
    };
    return all.at(type);
}

/// Seconds are cut to whole nanoseconds. Stamps come from a clock.
bool isKept(Mox::Attribute const& attribute, String const& text, String const& read) {
    if (attribute.type == "Kel::TaskTimeStamp")
        return text == "0" || text == textOf(Mox::SteadyClock::now());
    double written = 0, kept = 0;
    if (attribute.type != "double")
        return read == text;
    Mox::strepToValue(text, &written), Mox::strepToValue(read, &kept);
    return std::isfinite(written) && std::abs(written - kept) <= 1e-9;
}

/// What a child process has of it: 0 when all goes well, 1 when it is refused, else it ended there.
int inChild(std::function<void()> const& act) {
    pid_t const child = fork();
    if (child != 0) {
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
    }
    alarm(2);
    rlimit const noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    try {
        act();
    } catch (Mox::Exception const&) {
        _exit(1);
    }
    _exit(0);
}

/// Trees that nobody runs, and what has lost what it needs.
struct RefusalTest : LiveAttributesTest {
    RefusalTest() {
        auto const bare = Kel::taskSchedulerRootFactory("bare"),
                   withWheel = Kel::taskSchedulerRootFactory("withWheel");
        withWheel->timerWheelIs(named.root->timerWheel());
        auto const loose = Kel::taskGroupFactory("loose", TaskPriority::low, false, named.root);
        auto const waits = Kel::taskFactory(loose, TaskPriority::low, "waits"),
                   sleeps = Kel::taskFactory(loose, TaskPriority::low, "sleeps");
        waits->scheduleTask(), sleeps->taskSuspendedForTestIs(true), loose->parentTaskDel();
        auto const lostTask = Kel::taskGroupFactory("lostTask", TaskPriority::low, false, named.root);
        lostTask->resetStats(), lostTask->resetStatsTask()->notifierIs(nullptr);
        direct.root->resetStats();
        auto const moxLoop =
            Kel::taskSchedulerEventLoopFactory("mox", Kel::EventLoop::EventLoopIs(Mox::activityManager()));
        auto const suspendedRoot = Kel::taskSchedulerRootFactory("suspended");
        suspendedRoot->suspendedIs(true);
        auto const suspended = Kel::taskFactory(bare, TaskPriority::low, "suspended");
        suspended->taskSuspendedForTestIs(true);
        auto const noWheel = TestSupport::HandRoot::HandRootIs("noWheel");
        noWheel->timerWheelIs(nullptr), noWheel->trimHistoryEnabledIs(true),
            noWheel->schedulerHasRunnableTasksIs(true);
        auto const full = Kel::taskSchedulerEventLoopFactory("full", named.loop);
        for (Entity const& entity :
             std::initializer_list<Entity>{bare,
                                           withWheel,
                                           loose,
                                           waits,
                                           sleeps,
                                           noWheel,
                                           lostTask,
                                           lostTask->parentTask()->notifier(),
                                           direct.root->resetStatsTaskDel(),
                                           moxLoop,
                                           suspendedRoot,
                                           suspended,
                                           Kel::taskFactory(bare, TaskPriority::low, "t"),
                                           full,
                                           Kel::timerTaskFactory(withWheel, TaskPriority::low, "timer"),
                                           Kel::taskFactory(loose, TaskPriority::low, "t"),
                                           Kel::TaskScheduler::TaskSchedulerIs("scheduler", bare.ptr()),
                                           bare->resetStatsTaskIs(bare, TaskPriority::low, "reset"),
                                           Kel::taskFactory(full, TaskPriority::low, "t"),
                                           Kel::taskGroupFactory("inBare", TaskPriority::low, true, bare)})
            named.entities.push_back(entity);
    }
    /// What comes after it sooner or later.
    void goesOn(Mox::PtrInterface& entity) {
        if (auto const* const task = dynamic_cast<Task*>(&entity))
            task->taskShouldYield();
        for (int i = 0; i < 50; ++i)
            named.root->handleSchedulerRun();
        timers.clock->nowIs(1e11);
        for (int i = 0; i < 3; ++i)
            named.loop->runOnce(), timers.manager->runOnce();
        if (entity.moxAuditErrors(1) != 0)
            abort();
    }
    void expectRefusedIfBad(Mox::PtrInterface& entity, std::string const& member, auto const& byName,
                            auto const& inCode) {
        int const result = inChild([&] { byName(), goesOn(entity); });
        EXPECT_LT(result, 2);
        if (result == 1 && inChild([&] { inCode(), goesOn(entity); }) == 0)
            cautious.insert(
                attributeText(entity, dynamic_cast<Task*>(&entity) ? "taskName" : "schedulerName") + " " +
                member);
    }
    std::set<std::string> cautious; // refused although it went well
};

} // namespace

TEST_F(RefusalTest, ByNameExactlyThatIsRefusedWhichWouldEndTheProcess) {
    for (auto const& entity : named.entities) {
        Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*entity);
        for (auto const* attribute : type.attributes())
            for (String const& text :
                 attribute->isWritable() ? textsOf(attribute->type) : std::vector<String>()) {
                SCOPED_TRACE(testing::Message() << type.name() << "::" << attribute->name << " = " << text);
                expectRefusedIfBad(
                    *entity, attribute->name, [&] { attributeTextIs(*entity, attribute->name, text); },
                    [&] {
                        attribute->write(*entity, text);
                        if (!isKept(*attribute, text, attributeText(*entity, attribute->name)))
                            abort();
                    });
            }
        for (auto const* operation : type.operations()) {
            std::vector<std::vector<String>> lists{{}};
            for (std::string const& parameter : operation->parameterTypes) {
                std::vector<std::vector<String>> longer;
                for (auto const& list : lists)
                    for (String const& text : textsOf(parameter)) {
                        longer.push_back(list);
                        longer.back().push_back(text);
                    }
                lists = longer;
            }
            for (auto const& arguments : lists) {
                SCOPED_TRACE(testing::Message()
                             << type.name() << "::" << operation->name << testing::PrintToString(arguments));
                expectRefusedIfBad(
                    *entity, operation->name, [&] { callOperation(*entity, operation->name, arguments); },
                    [&] { operation->call(*entity, arguments); });
            }
        }
    }
    // Known: a quantum for a parent task to come, tasks left on a queue, a reset that is cut short, an alarm
    // that is never.
    EXPECT_THAT(cautious, testing::ElementsAre("'TaskGroup;loose' schedulerHasRunnableTasks",
                                               "'TaskGroup;loose' taskGroupQuantum", "'reset' taskRun",
                                               "'reset' taskRunFromTest", "'reset' taskRunInc",
                                               "'root' schedulerHasRunnableTasks",
                                               "'timer' scheduleTaskDelayedPrivate"));
}

TEST_F(LiveAttributesTest, MessagesNameTypeAttributeAndProblem) {
    Entity const task = named.task, timer = named.timer, root = named.root;
    for (auto const& [entity, attribute, text, message] :
         std::initializer_list<std::tuple<Entity, char const*, char const*, char const*>>{
             {task, "taskQuantum", "fast", "Kel::Task::taskQuantum: 'fast' is no double: expected float"},
             {task, "taskQuantum", "1.5", "Kel::Task::taskQuantum: 1.5 is not within 1e-09 and 1.0 seconds"},
             {task, "taskQuantum", "0.5s",
              "Kel::Task::taskQuantum: '0.5s' is no double: junk at column 3 deserializing double"},
             {timer, "taskRun", "-1", "Kel::TimerTask::taskRun: '-1' is no Mox::U32: expected a number"},
             {root, "schedulerHistoryMaxAge", "5",
              "Kel::TaskSchedulerRoot::schedulerHistoryMaxAge: a constant"},
             {task, "taskName", "'x'", "Kel::Task::taskName: read only"},
             {task, "limit", "1", "Kel::Task has no attribute 'limit'"},
             {root, "tasksRegistered", "@0x10",
              "Kel::TaskSchedulerRoot::tasksRegistered: only None can be given as a text: tasks register "
              "themselves"},
             {root, "tasksRegistered", "None",
              "null _tasksRegistered parameter to mutator for Kel::TaskScheduler::tasksRegistered not "
              "allowed"}})
        EXPECT_EQ(refusal([&, &entity = entity, &attribute = attribute, &text = text] {
                      attributeTextIs(*entity, attribute, text);
                  }),
                  message);
    EXPECT_THROW(attributeTextIs(*task, "taskName", "'x'"), Mox::OperationNotSupportedException);
    EXPECT_EQ(refusal([&] { callOperation(*root, "explode"); }),
              "Kel::TaskSchedulerRoot has no operation 'explode'");
    EXPECT_EQ(refusal([&] { callOperation(*root, "clearHistory", {"1"}); }),
              "Kel::TaskSchedulerRoot::clearHistory: takes 0 arguments, not 1");
    named.task->taskRunFromTest(), steady.advance(std::chrono::nanoseconds(-1));
    EXPECT_EQ(refusal([&] { callOperation(*task, "taskShouldYield"); }),
              "Kel::Task::taskShouldYield: the clock is behind the last run");
    std::string fromAbroad;
    std::thread([&] { fromAbroad = refusal([&] { attributeText(*task, "taskQuantum"); }); }).join();
    EXPECT_EQ(fromAbroad, "Kel::Task::taskQuantum: this thread is not the tree's");

    Ptr<CountingTaskForTen> const counting = new CountingTaskForTen(named.root);
    attributeTextIs(*counting, "limit", "10"), attributeTextIs(*counting, "taskQuantum", "0.25");
    EXPECT_EQ(attributeText(*counting, "limit") + attributeText(*counting, "taskQuantum"), "100.25");
}

TEST_F(LiveAttributesTest, RefusedResetClearsNothingAndADetachedGroupIsLeftOut) {
    auto const& [group, parentTask] = std::tie(named.group, named.parentTask);
    parentTask->taskWorkCountIs(5), group->resetStats(), group->resetStatsTask()->notifierIs(nullptr);
    EXPECT_EQ(refusal([&, &parentTask = parentTask] { callOperation(*parentTask, "resetStats"); }),
              "Kel::TaskGroupParentTask::resetStats: null ValidPtr");
    EXPECT_EQ(parentTask->taskWorkCount(), 5u);
    group->resetStatsTaskDel(), named.root->runUntilIdle(), group->parentTaskDel();
    callOperation(*parentTask, "resetStats");
    EXPECT_EQ(parentTask->taskWorkCount(), 0u);
    EXPECT_EQ(group->resetStatsTask(), nullptr);
}

TEST_F(LiveAttributesTest, ParentTasksInEachOthersGroupsAreScheduledAsTheyAreInCode) {
    auto const other = Kel::taskGroupFactory("other", TaskPriority::low, false, named.root);
    named.group->parentTaskIs(
        Kel::taskGroupParentTaskFactory(other, TaskPriority::low, "a", named.group.ptr()));
    other->parentTaskIs(Kel::taskGroupParentTaskFactory(named.group, TaskPriority::low, "b", other.ptr()));
    callOperation(*named.inGroup, "scheduleTask");
    for (auto const& each : {named.group, other}) {
        EXPECT_TRUE(each->parentTask()->notifier()->taskScheduled());
        each->parentTaskDel(); // who stand in each other hold each other
    }
}

TEST_F(LiveAttributesTest, CollectionsAreReadByKey) {
    Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*named.root);
    auto const entry = [&](char const* collection, String const& key) {
        return type.entryText(*named.root, collection, key);
    };
    std::set<String> found, tasks, schedulers;
    for (Entity const& entity :
         std::initializer_list<Entity>{named.task, named.scheduled, named.timer, named.parentTask})
        tasks.insert(Mox::referenceToStrep(entity.ptr()));
    for (String const& key : type.keys(*named.root, "tasksRegistered"))
        found.insert(entry("tasksRegistered", key));
    EXPECT_EQ(found, tasks);
    named.root->taskSchedulerIs(named.group.ptr(), false);
    for (Ptr<Kel::TaskScheduler> const& scheduler :
         {Ptr<Kel::TaskScheduler>(named.root), Ptr<Kel::TaskScheduler>(named.group)}) {
        schedulers.insert(Mox::referenceToStrep(scheduler.ptr()));
        EXPECT_EQ(entry("taskScheduler", Mox::referenceToStrep(scheduler.ptr())),
                  scheduler == named.root ? "True" : "False");
    }
    auto const keys = type.keys(*named.root, "taskScheduler");
    EXPECT_EQ(std::set<String>(keys.begin(), keys.end()), schedulers);
    for (char const* name : {"a'\n", "a'\n", "b"})
        Kel::taskFactory(named.root, TaskPriority::normal, name);
    EXPECT_THAT(type.keys(*named.root, "deadTaskStats"), testing::UnorderedElementsAre("'a\\'\\n'", "'b'"));
    EXPECT_THAT(entry("deadTaskStats", "'a\\'\\n'"), HasSubstr("'taskDeadCount': 2"));
    EXPECT_EQ(entry("tasksPerPriority", "'normal'") + entry("tasksPerPriority", "'high'") +
                  entry("deadTasksPerPriority", "'normal'"),
              "213");
    for (auto const& [collection, key, message] :
         std::initializer_list<std::tuple<char const*, char const*, char const*>>{
             {"tasksRegistered", "@0x10", "no entry @0x10"},
             {"tasksRegistered", "x", "'x' is no key: "},
             {"taskScheduler", "'Kel::TaskGroup@0x10'", "no entry"},
             {"deadTaskStats", "'c'", "no entry 'c'"},
             {"suspended", "x", "not a collection"}})
        EXPECT_THAT(refusal([&, &collection = collection, &key = key] { entry(collection, key); }),
                    HasSubstr(message));
}
