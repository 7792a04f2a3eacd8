#include <registry/detail/Building.h>
#include <registry/detail/Tables.h>
#include <registry/detail/ValueText.h>

#include <group/TaskGroup.h>
#include <group/TaskGroupParentTask.h>
#include <mox/Type.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <task/TimerTask.h>

#include <cmath>

namespace Kel {

using Mox::Problem;
using Mox::Seconds;
using Mox::U32;
using Mox::U64;
using Mox::U8;

namespace {

/// A setter of nanoseconds that takes seconds, as its getter gives: an operator who writes back what he read
/// changes nothing. Of one value in forty the double that was read lies below it, and would be cut off to the
/// nanosecond before.
template <auto setter> void secondsIs(Task& task, Seconds seconds) {
    Mox::Nanoseconds const count = Mox::toNanoseconds(seconds);
    Mox::Nanoseconds const next =
        count + Mox::Nanoseconds(std::abs(seconds) < 1e6 ? seconds < 0 ? -1 : 1 : 0);
    (task.*setter)(Mox::toSeconds(next) == seconds ? next : count);
}

/// An orphan belongs to no tree, and so to no thread.
Problem problemOfTask(Task const& task) {
    TaskScheduler const* const scheduler = task.scheduler();
    return scheduler ? scheduler->problemOfThread() : "";
}

/// To change the count is to run the task: its reactors work when they are told.
Problem problemOfRunIs(Task const& task, U32) { return problemOfRunning(task); }

Problem problemOfTaskReset(Task const& task) {
    auto const* const parentTask = dynamic_cast<TaskGroupParentTask const*>(&task);
    return parentTask ? parentTask->problemOfResetStats() : "";
}

/// A test may set the clock back behind the last run; the task asserts that it is not.
Problem problemOfAskingForYield(Task const& task) {
    return Mox::SteadyClock::now() >= task.taskLastRunTimeStamp() ? "" : "the clock is behind the last run";
}

// Delays of timer tasks

bool isNever(Seconds delay) { return delay == Mox::endOfTime; }

/// What the wheel does with it is decided here and not when it fires: a timer that nothing could run then
/// would end the process at a time when nobody remembers who armed it.
Problem problemOfArming(TimerTask const& task, Seconds delay) {
    if (std::isnan(delay))
        return "the delay is no number";
    auto const scheduler = task.taskScheduler();
    return scheduler ? scheduler->problemOfRequest() : "the task has lost its scheduler";
}

Problem problemOfDelay(TimerTask const& task, Seconds delay) {
    return isNever(delay) ? "" : problemOfArming(task, delay); // stops the timer
}

Problem problemOfLowestDelay(TimerTask const& task, Seconds delay) {
    return isNever(delay) ? "the delay is not finite" : problemOfArming(task, delay);
}

/// Without end is as far as the wheel's time goes, here.
Problem problemOfDelayPrivate(TimerTask const& task, Seconds delay, bool) {
    return problemOfArming(task, delay);
}

Problem problemOfJitterUp(TimerTask const& task, Seconds delay, U8) { return problemOfDelay(task, delay); }

Problem problemOfJitterDown(TimerTask const& task, Seconds delay, U8 maxJitterPercentage) {
    if (maxJitterPercentage > 100 && !isNever(delay))
        return "the percentage is above 100";
    return delay < 0.0 ? "the delay is negative" : problemOfDelay(task, delay);
}

// Factories

/// What all tasks are built from. The scheduler is asked before anything is made: a constructor
/// that cannot register its task ends the process.
struct TaskIngredients {
    explicit TaskIngredients(Building const& building)
        : scheduler(building.reference<TaskScheduler>("taskScheduler")),
          priority(building.priority("taskPriority")), name(building.text<Mox::String>("taskName")) {
        building.refuseIf("taskScheduler", scheduler->problemOfRegistering(priority));
    }

    Mox::Ptr<TaskScheduler> const scheduler;
    TaskPriority const priority;
    Mox::String const name;
};

Mox::Ptr<Mox::PtrInterface> makeTask(Mox::Ingredients const& ingredients) {
    TaskIngredients const task(Building("Kel::Task", ingredients));
    return taskFactory(task.scheduler, task.priority, task.name);
}

Mox::Ptr<Mox::PtrInterface> makeTimerTask(Mox::Ingredients const& ingredients) {
    Building const building("Kel::TimerTask", ingredients);
    TaskIngredients const task(building);
    building.refuseIf("taskScheduler",
                      task.scheduler->root()->timerWheel() ? "" : "the root has no timer wheel");
    return timerTaskFactory(task.scheduler, task.priority, task.name);
}

void addTask(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<Task>(registry)
        .guard(problemOfTask)
        .factory({"taskPriority", "taskName"}, {"taskScheduler"}, makeTask)
        .constant(
            "taskQuantumDefault", +[] { return Task::taskQuantumDefault; })
        .constant("taskMagicNumberConstructed", &Task::taskMagicNumberConstructed)
        .constant("taskMagicNumberDestroyed", &Task::taskMagicNumberDestroyed)
        .readOnly("taskScheduler", &Task::taskScheduler)
        .readOnly("taskPriority", &Task::taskPriority)
        .readOnly("taskName", &Task::taskName)
        .readOnly("taskKey", &Task::taskKey)
        .readOnly("taskRunQueueLink", [](Task const& task) { return task.taskRunQueueLink().isLinked(); })
        .writable("taskBusy", &Task::taskBusy, &Task::taskBusyIs)
        .writable("taskQuantum", &Task::taskQuantum, &Task::taskQuantumIs, quantumRange)
        .writable("taskSuspendedForTest", &Task::taskSuspendedForTest, &Task::taskSuspendedForTestIs, {},
                  &Task::problemOfSuspendedForTest)
        .writable("taskForceYieldInTest", &Task::taskForceYieldInTest, &Task::taskForceYieldInTestIs)
        .writable("taskLastAddedToRunQueueTimeStamp", &Task::taskLastAddedToRunQueueTimeStamp,
                  &Task::taskLastAddedToRunQueueTimeStampIs, stampRange)
        .writable("taskLastRunTimeStamp", &Task::taskLastRunTimeStamp, &Task::taskLastRunTimeStampIs,
                  stampRange)
        .writable("taskLastSchedulingLatency", &Task::taskLastSchedulingLatency,
                  secondsIs<&Task::taskLastSchedulingLatencyInternalIs>, durationRange)
        .writable("taskSchedulingLatencyHighWaterMark", &Task::taskSchedulingLatencyHighWaterMark,
                  secondsIs<&Task::taskSchedulingLatencyHighWaterMarkInternalIs>, durationRange)
        .writable("taskTotalRunTime", &Task::taskTotalRunTime, secondsIs<&Task::taskTotalRunTimeInternalIs>,
                  durationRange)
        .readOnly("taskRunTimeHighWaterMark", &Task::taskRunTimeHighWaterMark)
        .writable("taskWorkCount", &Task::taskWorkCount, &Task::taskWorkCountIs)
        .writable("taskQuantumViolation500", &Task::taskQuantumViolation500, &Task::taskQuantumViolation500Is)
        .writable("taskQuantumViolation200", &Task::taskQuantumViolation200, &Task::taskQuantumViolation200Is)
        .writable("taskRun", &Task::taskRun, &Task::taskRunIs, {}, problemOfRunIs)
        .writable("taskCurrentlyRunning", &Task::taskCurrentlyRunning, &Task::taskCurrentlyRunningIs)
        .readOnly("taskMagicNumber", &Task::taskMagicNumber)
        .operation("taskScheduled", &Task::taskScheduled)
        .operation("scheduleTask", &Task::scheduleTask, &Task::problemOfScheduling)
        .operation("unscheduleTask", &Task::unscheduleTask)
        .operation("taskRunFromTest", &Task::taskRunFromTest, problemOfRunning)
        .operation("taskShouldYield", &Task::taskShouldYield, problemOfAskingForYield)
        .operation("resetStats", &Task::resetStats, problemOfTaskReset)
        .operation("taskStatus", &Task::taskStatus)
        .operation("getStats", &Task::getStats)
        .operation<U64>("taskWorkCountInc", &Task::taskWorkCountInc)
        .operation<U32>("taskRunInc", &Task::taskRunInc, problemOfRunIs);
}

void addTimerTask(Mox::TypeRegistry& registry) {
    Mox::AttributeTable<TimerTask>(registry)
        .factory({"taskPriority", "taskName"}, {"taskScheduler"}, makeTimerTask)
        .writable("timerTaskInitComplete", &TimerTask::timerTaskInitComplete,
                  &TimerTask::timerTaskInitCompleteIs)
        .reactor("timer", &TimerTask::timer)
        .operation<Seconds>("scheduleTaskDelay", &TimerTask::scheduleTaskDelay, problemOfDelay)
        .operation<Seconds>("scheduleTaskLowestDelay", &TimerTask::scheduleTaskLowestDelay,
                            problemOfLowestDelay)
        .operation<Seconds, U8>("scheduleTaskJitterUp", &TimerTask::scheduleTaskJitterUp, problemOfJitterUp)
        .operation<Seconds, U8>("scheduleTaskJitterDown", &TimerTask::scheduleTaskJitterDown,
                                problemOfJitterDown)
        .operation<Seconds, bool>("scheduleTaskDelayedPrivate", &TimerTask::scheduleTaskDelayedPrivate,
                                  problemOfDelayPrivate)
        .operation("stopTimerTask", &TimerTask::stopTimerTask)
        .operation("currentExpirationTime", &TimerTask::currentExpirationTime);
}

} // namespace

void addTaskTypes(Mox::TypeRegistry& registry) {
    addTask(registry);
    addTimerTask(registry);
}

} // namespace Kel
