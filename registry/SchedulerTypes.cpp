#include <registry/detail/Building.h>
#include <registry/detail/Tables.h>
#include <registry/detail/ValueText.h>

#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

namespace Kel {

using Mox::Problem;
using Mox::Seconds;
using Mox::String;
using Mox::U32;

namespace {

// Collections of entities. Keys are compared with those of the entries, never taken for addresses: they come
// from outside, and what an operator copied may have died since.

/// It can be written because the scheduler has a setter of one task. A text can only be the null reference,
/// and that no scheduler takes: so the answer is the scheduler's own, not that it was read only.
Mox::Attribute tasksRegistered() {
    Mox::Attribute tasks;
    tasks.type = Mox::AttributeText<Task*>::type();
    tasks.read = [](Mox::Subject const& subject) {
        return Mox::valueToStrep(Mox::U64{subject.as<TaskScheduler>().tasksRegistered().size()});
    };
    tasks.keys = [](Mox::Subject const& subject, std::size_t most) {
        auto const& registered = subject.as<TaskScheduler>().tasksRegistered();
        std::vector<String> keys;
        for (Task const* task = registered.first(); task && keys.size() < most; task = registered.after(task))
            keys.push_back(task->taskKey().toStrep());
        return keys;
    };
    tasks.entry = [](Mox::Subject const& subject, String const& key) -> std::optional<String> {
        Task const* const task =
            subject.as<TaskScheduler>().tasksRegistered(Mox::AttributeText<TaskKey>::read(key));
        return task ? std::optional(Mox::referenceToStrep(task)) : std::nullopt;
    };
    tasks.problemOfText = [](String const& text) {
        return text == "None" ? "" : "only None can be given as a text: tasks register themselves";
    };
    tasks.problemOfWriting = [](Mox::Subject const&, String const&) { return Problem(); };
    tasks.write = [](Mox::Subject const& subject, String const&) {
        subject.as<TaskScheduler>().tasksRegisteredIs(nullptr);
    };
    return tasks;
}

Mox::Attribute taskSchedulers() {
    Mox::Attribute schedulers;
    schedulers.type = Mox::AttributeText<bool>::type();
    schedulers.read = [](Mox::Subject const& subject) {
        return Mox::valueToStrep(Mox::U64{subject.as<TaskSchedulerRoot>().taskScheduler().size()});
    };
    schedulers.keys = [](Mox::Subject const& subject, std::size_t most) {
        auto const& all = subject.as<TaskSchedulerRoot>().taskScheduler();
        std::vector<String> keys;
        for (auto at = all.begin(); at != all.end() && keys.size() < most; ++at)
            keys.push_back(Mox::referenceToStrep(at->first));
        return keys;
    };
    schedulers.entry = [](Mox::Subject const& subject, String const& key) -> std::optional<String> {
        for (auto const& [scheduler, value] : subject.as<TaskSchedulerRoot>().taskScheduler())
            if (key == Mox::referenceToStrep(scheduler))
                return Mox::valueToStrep(value);
        return std::nullopt;
    };
    return schedulers;
}

// Problems

Problem problemOfPriority(TaskScheduler const&, TaskPriority priority) {
    return priority.isValid() ? "" : Mox::valueToStrep(priority) + " is no priority of a task";
}

Problem problemOfRoot(TaskScheduler const& scheduler) {
    return scheduler.root() ? "" : "the scheduler has no root";
}

/// Such a loop waits anyway when it is idle, and has no timer to be kept alive by.
Problem problemOfKeepingAlive(TaskSchedulerEventLoop const& root) {
    return root.evLoop()->useMoxEventLoop() ? "the loop is the activity manager's" : "";
}

// Of each pair of operations of a name, the one by key: the other takes an iterator, which has no text.

TaskStat deadTaskStatsDel(TaskScheduler& scheduler, String const& name) {
    return scheduler.deadTaskStatsDel(name);
}

U32 deadTasksPerPriorityDel(TaskScheduler& scheduler, TaskPriority priority) {
    return scheduler.deadTasksPerPriorityDel(priority);
}

// Factories

String nameOf(char const* typeName, Mox::Ingredients const& ingredients) {
    return Building(typeName, ingredients).text<String>("schedulerName");
}

Mox::Ptr<Mox::PtrInterface> makeScheduler(Mox::Ingredients const& ingredients) {
    auto const root = Building("Kel::TaskScheduler", ingredients).reference<TaskSchedulerRoot>("root");
    return TaskScheduler::TaskSchedulerIs(nameOf("Kel::TaskScheduler", ingredients), root.ptr());
}

Mox::Ptr<Mox::PtrInterface> makeRoot(Mox::Ingredients const& ingredients) {
    return taskSchedulerRootFactory(nameOf("Kel::TaskSchedulerRoot", ingredients));
}

Mox::Ptr<Mox::PtrInterface> makeEventLoopRoot(Mox::Ingredients const& ingredients) {
    auto const loop = Building("Kel::TaskSchedulerEventLoop", ingredients).reference<EventLoop>("evLoop");
    return taskSchedulerEventLoopFactory(nameOf("Kel::TaskSchedulerEventLoop", ingredients), loop);
}

Mox::Ptr<Mox::PtrInterface> makeActivityRoot(Mox::Ingredients const& ingredients) {
    return taskSchedulerMoxActivityFactory(nameOf("Kel::TaskSchedulerMoxActivity", ingredients));
}

/// The guard stands before reading, too: the maps change under the tree's thread. Counters that a scheduler
/// keeps of its tasks are read only, for what is written over them no later count corrects.
void addScheduler(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TaskScheduler>(registry)
        .guard(&TaskScheduler::problemOfThread)
        .factory({"schedulerName"}, {"root"}, makeScheduler)
        .constant("timerWheelTickInMsec", &TaskScheduler::timerWheelTickInMsec)
        .constant("priorityRunFactor", &TaskScheduler::priorityRunFactor)
        .readOnly("schedulerName", &TaskScheduler::schedulerName)
        .readOnly("root", &TaskScheduler::root)
        .collection("tasksRegistered", tasksRegistered())
        .map(
            "tasksPerPriority", [](TaskScheduler const& s) -> auto& { return s.tasksPerPriority(); })
        .writable("schedulerLastScheduleTimeStamp", &TaskScheduler::schedulerLastScheduleTimeStamp,
                  &TaskScheduler::schedulerLastScheduleTimeStampIs, stampRange)
        .writable("schedulerLastRunTimeStamp", &TaskScheduler::schedulerLastRunTimeStamp,
                  &TaskScheduler::schedulerLastRunTimeStampIs, stampRange)
        .writable(
            "schedulerMaxSchedulerSlip", &TaskScheduler::schedulerMaxSchedulerSlip,
            [](TaskScheduler& s, Seconds slip) {
                s.schedulerMaxSchedulerSlipInternalIs(Mox::toNanoseconds(slip));
            },
            durationRange)
        .map(
            "deadTaskStats", [](TaskScheduler const& s) -> auto& { return s.deadTaskStats(); })
        .map(
            "deadTasksPerPriority", [](TaskScheduler const& s) -> auto& { return s.deadTasksPerPriority(); })
        .reactor("resetStatsTask", &TaskScheduler::resetStatsTask)
        .writable("resetStatsTaskBookmark", &TaskScheduler::resetStatsTaskBookmark,
                  &TaskScheduler::resetStatsTaskBookmarkIs)
        .writable("schedulerHasRunnableTasks", &TaskScheduler::schedulerHasRunnableTasks,
                  &TaskScheduler::schedulerHasRunnableTasksIs, {}, &TaskScheduler::problemOfHasRunnableTasks)
        .operation("requestSchedulerRun", &TaskScheduler::requestSchedulerRun,
                   &TaskScheduler::problemOfRequest)
        .operation("resetStats", &TaskScheduler::resetStats, &TaskScheduler::problemOfResetStats)
        .operation("queueStats", &TaskScheduler::queueStats)
        .operation<TaskPriority>("runTaskCount", &TaskScheduler::runTaskCount, problemOfPriority)
        .operation<TaskPriority>("runnableTaskCount", &TaskScheduler::runnableTaskCount, problemOfPriority)
        .operation<TaskPriority, U32>("attemptLowerPriorityBump", &TaskScheduler::attemptLowerPriorityBump)
        .operation("resetStatsTaskDel", &TaskScheduler::resetStatsTaskDel)
        .operation<String>("deadTaskStatsDel", &deadTaskStatsDel)
        .operation<TaskPriority>("deadTasksPerPriorityDel", &deadTasksPerPriorityDel)
        .operation("deadTaskStatsDelAll", &TaskScheduler::deadTaskStatsDelAll)
        .operation("deadTasksPerPriorityDelAll", &TaskScheduler::deadTasksPerPriorityDelAll)
        .operation("sanityCheckCurrentRunningThread", &TaskScheduler::sanityCheckCurrentRunningThread,
                   problemOfRoot);
}

/// The wheel is read only, though a root takes another one: no text can name one.
void addRoot(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TaskSchedulerRoot>(registry)
        .factory({"schedulerName"}, {}, makeRoot)
        .readOnly("timerWheel", &TaskSchedulerRoot::timerWheel)
        .collection("taskScheduler", taskSchedulers())
        .constant("schedulerHistoryMaxAge", &TaskSchedulerRoot::schedulerHistoryMaxAge)
        .readOnly("schedulerThread", &TaskSchedulerRoot::schedulerThread)
        .readOnly("schedulerPid", &TaskSchedulerRoot::schedulerPid)
        .writable("trimHistoryEnabled", &TaskSchedulerRoot::trimHistoryEnabled,
                  &TaskSchedulerRoot::trimHistoryEnabledIs)
        .reactor("trimHistoryTask", &TaskSchedulerRoot::trimHistoryTask)
        .writable("suspended", &TaskSchedulerRoot::suspended, &TaskSchedulerRoot::suspendedIs, {},
                  &TaskSchedulerRoot::problemOfSuspended)
        .operation("clearHistory", &TaskSchedulerRoot::clearHistory)
        .operation("trimHistoryTaskDel", &TaskSchedulerRoot::trimHistoryTaskDel)
        .operation("trimHistoryTaskSchedule", &TaskSchedulerRoot::trimHistoryTaskSchedule,
                   &TaskSchedulerRoot::problemOfTrimming)
        .operation("handleTrimHistoryTaskRun", &TaskSchedulerRoot::handleTrimHistoryTaskRun);
}

void addDrivers(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TaskSchedulerEventLoop>(registry)
        .factory({"schedulerName"}, {"evLoop"}, makeEventLoopRoot)
        .readOnly("evLoop", &TaskSchedulerEventLoop::evLoop)
        .reactor("clock", &TaskSchedulerEventLoop::clock)
        .reactor("eventLoopKeepAliveClock", &TaskSchedulerEventLoop::eventLoopKeepAliveClock)
        .operation("keepEventLoopAlive", &TaskSchedulerEventLoop::keepEventLoopAlive, problemOfKeepingAlive);
    Mox::AttributeTable<TaskSchedulerMoxActivity>(registry)
        .factory({"schedulerName"}, {}, makeActivityRoot)
        .reactor("clock", &TaskSchedulerMoxActivity::clock);
}

} // namespace

void addSchedulerTypes(Mox::TypeRegistry& registry) {
    addScheduler(registry);
    addRoot(registry);
    addDrivers(registry);
}

} // namespace Kel
