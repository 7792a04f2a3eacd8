#include <adapt/Callbacks.h>

#include <group/TaskGroup.h>
#include <support/HandRoot.h>

#include <gmock/gmock.h>

namespace {

using Kel::Task;
using Kel::TaskPriority;
using Mox::Ptr;

struct CallbacksTest : TestSupport::HandTreeTest {};

TEST_F(CallbacksTest, EachHearsItsOwnNotificationAndNoOther) {
    auto const t = task();
    auto const timer = timerTask();
    auto const group = Kel::TaskGroup::TaskGroupIs("g", TaskPriority::low, false, root);
    auto const parent =
        Kel::TaskGroupParentTask::TaskGroupParentTaskIs(root, TaskPriority::low, "parent", nullptr);
    auto const event = Kel::TimerEvent::TimerEventIs(Kel::EventLoop::EventLoopIs(timers.manager));
    std::string heard;
    auto const says = [&](char const* what) { return [&heard, what] { heard += what; }; };
    auto const onWheel = Kel::onTime(root->timerWheel(), says("wheel "));
    auto const onClock = Kel::onTime(timers.clock, says("clock "));
    Ptr<Mox::PtrInterface> const others[] = {
        Kel::onTaskBusy(t, says("busy ")),
        Kel::onTaskSuspendedForTest(t, says("suspended ")),
        Kel::onTaskForceYieldInTest(t, says("yield ")),
        Kel::onTaskWorkCount(t, says("work ")),
        Kel::onTaskQuantumViolation500(t, says("500% ")),
        Kel::onTaskQuantumViolation200(t, says("200% ")),
        Kel::onTaskRun(t, says("run ")),
        Kel::onTaskCurrentlyRunning(t, says("running ")),
        Kel::onTaskBusy(timer, says("! ")), // is told nothing of what only timers tell
        Kel::onTimerTaskInitComplete(timer, says("complete ")),
        Kel::onTaskGroup(parent, says("group ")),
        Kel::onClock(event, says("event ")),
    };
    // In another order, so that one that hears its neighbour's shows.
    parent->taskGroupIs(group.ptr());
    timer->timerTaskInitCompleteIs(false);
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
    onWheel->timeMinIs(2.0);
    timePasses(1.0);
    onClock->timeMinIs(3.0);
    timePasses(1.0);
    EXPECT_EQ("group complete running run 200% 500% work yield suspended busy event wheel clock ", heard);
}

} // namespace
