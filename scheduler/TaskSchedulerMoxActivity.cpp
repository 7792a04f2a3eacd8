#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <mox/ActivityManager.h>
#include <mox/Type.h>
#include <task/detail/TaskTrace.h>

namespace Kel {

namespace {

constexpr Mox::U32 wheelTicks = 8640000; // a day
constexpr Mox::U32 wheelBuckets = 1024;

} // namespace

MOX_DEFINE_TYPE(TaskSchedulerMoxActivity, "Kel::TaskSchedulerMoxActivity", &TaskSchedulerRoot::type())

Mox::Ptr<TaskSchedulerMoxActivity>
TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs(Mox::String8 const& name) {
    Mox::Ptr<TaskSchedulerMoxActivity> root = new TaskSchedulerMoxActivity(name);
    root->stepsAreOwn();
    root->hasNotificationActiveIs(true);
    return root;
}

Mox::Ptr<TaskSchedulerMoxActivity> taskSchedulerMoxActivityFactory(Mox::String8 const& name) {
    return TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs(name);
}

TaskSchedulerMoxActivity::TaskSchedulerMoxActivity(Mox::String8 const& name) : TaskSchedulerRoot(name) {
    preconditionsAre({.ofRequest = [](TaskScheduler const& scheduler) -> Mox::Problem {
        auto const& root = static_cast<TaskSchedulerMoxActivity const&>(scheduler);
        return root.clock() && root.clock()->notifier() ? "" : "the root has no clock";
    }});
    handleInitialized();
}

/// Wheel and requests go by the same clock, so that a test clock installed before moves both.
void TaskSchedulerMoxActivity::handleInitialized() {
    MOX_TRACE_AT(taskSchedulerTrace, 4, this << " Scheduler created");
    Mox::Ptr<Mox::Clock const> const clock = Mox::activityManager()->config()->clock();
    timerWheelIs(
        TimerWheel::TimerWheelIs(nullptr, clock, timerWheelTickInMsec(), wheelTicks, true, wheelBuckets));
    clockIs(clock);
}

TaskSchedulerMoxActivity::~TaskSchedulerMoxActivity() = default;

/// A request that was under way is an alarm of the former clock, which nobody hears any more: it is made
/// again.
void TaskSchedulerMoxActivity::clockIs(Mox::Ptr<Mox::Clock const> const& clock) {
    if (clock_.madeFor(this)->notifier() == clock)
        return;
    clock_->notifierIs(clock);
    if (clock && schedulerHasRunnableTasks())
        requestSchedulerRun(); // the former clock took the request along
}

void TaskSchedulerMoxActivity::clockDel() { clock_.drop(); }

/// Time zero has always been reached: the alarm comes at the next turn, whatever the clock shows.
void TaskSchedulerMoxActivity::requestSchedulerRun() {
    if (clock_)
        clock_->timeMinIs(0.0);
}

void TaskSchedulerMoxActivity::MoxClock::onTime() {
    if (owner())
        owner()->handleSchedulerRun();
}

} // namespace Kel
