#include <adapt/Callbacks.h>

#include <group/TaskGroup.h>
#include <support/HandRoot.h>

#include <gmock/gmock.h>

namespace {

using namespace TestSupport;

struct CallbacksTest : HandTreeTest {};

TEST_F(CallbacksTest, EachHearsItsOwnNotificationAndNoOther) {
    auto const t = task();
    auto const timer = timerTask();
    auto const group = TaskGroup::TaskGroupIs("g", TaskPriority::low, false, root);
    auto const parent =
        TaskGroupParentTask::TaskGroupParentTaskIs(root, TaskPriority::low, "parent", nullptr);
    auto const event = TimerEvent::TimerEventIs(EventLoop::EventLoopIs(timers.manager));
    std::string heard;
    auto const says = [&](char const* what) { return [&heard, what] { heard += what; }; };
    auto const ofWheel = onTime(root->timerWheel(), says("wheel "));
    auto const ofClock = onTime(timers.clock, says("clock "));
    Ptr<PtrInterface> const others[] = {
        onTaskBusy(t, says("busy ")),
        onTaskSuspendedForTest(t, says("suspended ")),
        onTaskForceYieldInTest(t, says("yield ")),
        onTaskWorkCount(t, says("work ")),
        onTaskQuantumViolation500(t, says("500% ")),
        onTaskQuantumViolation200(t, says("200% ")),
        onTaskRun(t, says("run ")),
        onTaskCurrentlyRunning(t, says("running ")),
        onTaskBusy(timer, says("! ")), // is told nothing of what only timers tell
        onTimerTaskInitComplete(timer, says("complete ")),
        onTaskGroup(parent, says("group ")),
        onClock(event, says("event ")),
    };
    // In another order, so that one that hears its neighbour's shows.
    parent->taskGroupIs(group.ptr());
    timer->timerTaskInitCompleteIs(false);
    timer->hasNotificationActiveIs(false), timer->timerTaskInitCompleteIs(true); // muted
    t->taskCurrentlyRunningIs(true);
    t->taskRunInc(1);
    t->taskQuantumViolation200Is(1);
    t->taskQuantumViolation500Is(1);
    t->taskWorkCountInc(1);
    t->taskForceYieldInTestIs(true);
    t->taskSuspendedForTestIs(true);
    t->taskBusyIs(true);
    event->timeMinIs(1.0);
    timePasses(1.0);
    ofWheel->timeMinIs(2.0);
    timePasses(1.0);
    ofClock->timeMinIs(3.0);
    timePasses(1.0);
    EXPECT_EQ("group complete running run 200% 500% work yield suspended busy event wheel clock ", heard);
}

} // namespace
