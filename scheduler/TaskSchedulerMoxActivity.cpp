#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <mox/ActivityManager.h>
#include <mox/Type.h>
#include <task/detail/TaskTrace.h>

#include <utility>

namespace Kel {

namespace {

constexpr Mox::U32 wheelTicks = 8640000; // a day
constexpr Mox::U32 wheelBuckets = 1024;

} // namespace

MOX_DEFINE_TYPE(TaskSchedulerMoxActivity, "Kel::TaskSchedulerMoxActivity", &TaskSchedulerRoot::type())

Mox::Ptr<TaskSchedulerMoxActivity>
TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs(Mox::String8 const& name) {
    Mox::Ptr<TaskSchedulerMoxActivity> root = new TaskSchedulerMoxActivity(name);
    root->hasNotificationActiveIs(true);
    return root;
}

Mox::Ptr<TaskSchedulerMoxActivity> taskSchedulerMoxActivityFactory(Mox::String8 const& name) {
    return TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs(name);
}

TaskSchedulerMoxActivity::TaskSchedulerMoxActivity(Mox::String8 const& name) : TaskSchedulerRoot(name) {
    handleInitialized();
}

void TaskSchedulerMoxActivity::handleInitialized() {
    MOX_TRACE_AT(taskSchedulerTrace, 4, this << " Scheduler created");
    Mox::Ptr<Mox::Clock const> const clock = Mox::activityManager()->config()->clock();
    timerWheelIs(
        TimerWheel::TimerWheelIs(nullptr, clock, timerWheelTickInMsec(), wheelTicks, true, wheelBuckets));
    clockIs(clock);
}

TaskSchedulerMoxActivity::~TaskSchedulerMoxActivity() {
    dropOwnTasks();
    TaskSchedulerMoxActivity::moxDoZombieReactors(true);
    clockDel();
}

void TaskSchedulerMoxActivity::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    TaskSchedulerRoot::hasNotificationActiveIs(active);
    if (clock_)
        clock_->hasNotificationActiveIs(active);
    if (active && schedulerHasRunnableTasks())
        requestSchedulerRun(); // one that came due meanwhile was spent
}

void TaskSchedulerMoxActivity::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    if (clock_)
        clock_->moxDoZombieReactors(zombie);
    TaskSchedulerRoot::moxDoZombieReactors(zombie);
}

void TaskSchedulerMoxActivity::clockIs(Mox::Ptr<Mox::Clock const> const& clock) {
    if (!clock_) {
        clock_ = new MoxClock;
        clock_->moxFwkActivityIs(moxFwkActivity());
        clock_->taskSchedulerMoxActivityIs(this);
    }
    if (clock_->notifier() == clock)
        return;
    clock_->notifierIs(clock);
    if (clock && schedulerHasRunnableTasks())
        requestSchedulerRun(); // the former clock took the request along
}

void TaskSchedulerMoxActivity::clockDel() {
    if (Mox::Ptr<MoxClock> const dropped = std::exchange(clock_, nullptr)) {
        dropped->moxDoZombieReactors(true);
        dropped->taskSchedulerMoxActivityIs(nullptr);
    }
}

void TaskSchedulerMoxActivity::requestSchedulerRun() {
    if (clock_)
        clock_->timeMinIs(0.0);
}

void TaskSchedulerMoxActivity::MoxClock::onTime() {
    if (root_)
        root_->handleSchedulerRun();
}

} // namespace Kel
