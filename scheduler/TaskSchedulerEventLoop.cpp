#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerEventLoop.h>

#include <kel/EventLoopTimerWheel.h>
#include <mox/Assert.h>
#include <mox/Type.h>
#include <task/detail/TaskTrace.h>

#include <utility>

namespace Kel {

namespace {

constexpr Mox::Seconds keepAlive = 600.0;
constexpr Mox::U32 wheelTicks = 8640000; // a day
constexpr Mox::U32 wheelBuckets = 1024;

/// Makes the reactor on the event, or moves an existing one there.
template <class Clock>
void clockOn(Mox::Ptr<Clock>& clock, TaskSchedulerEventLoop* root, Mox::Ptr<TimerEvent> const& event) {
    if (!clock) {
        clock = new Clock;
        clock->moxFwkActivityIs(root->moxFwkActivity());
        clock->taskSchedulerEventLoopIs(root);
    }
    clock->notifierIs(event);
}

template <class Clock> void dropClock(Mox::Ptr<Clock>& clock) {
    if (Mox::Ptr<Clock> const dropped = std::exchange(clock, nullptr)) {
        dropped->moxDoZombieReactors(true);
        dropped->taskSchedulerEventLoopIs(nullptr);
    }
}

} // namespace

MOX_DEFINE_TYPE(TaskSchedulerEventLoop, "Kel::TaskSchedulerEventLoop", &TaskSchedulerRoot::type())

Mox::Ptr<TaskSchedulerEventLoop>
TaskSchedulerEventLoop::TaskSchedulerEventLoopIs(Mox::String8 const& name,
                                                 Mox::Ptr<EventLoop> const& evLoop) {
    Mox::Ptr<TaskSchedulerEventLoop> root = new TaskSchedulerEventLoop(name, evLoop);
    root->hasNotificationActiveIs(true);
    return root;
}

Mox::Ptr<TaskSchedulerEventLoop> taskSchedulerEventLoopFactory(Mox::String8 const& name,
                                                               Mox::Ptr<EventLoop> const& evLoop) {
    return TaskSchedulerEventLoop::TaskSchedulerEventLoopIs(name, evLoop);
}

TaskSchedulerEventLoop::TaskSchedulerEventLoop(Mox::String8 const& name, Mox::Ptr<EventLoop> const& evLoop)
    : TaskSchedulerRoot(name), evLoop_(evLoop) {
    MOX_ASSERT_AS("__null != evLoop_", evLoop_);
    handleInitialized();
}

void TaskSchedulerEventLoop::handleInitialized() {
    MOX_TRACE_AT(taskSchedulerTrace, 4, schedulerName() << ": Scheduler created");
    timerWheelIs(EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, nullptr, timerWheelTickInMsec(),
                                                            wheelTicks, true, wheelBuckets, evLoop_));
    clockIs(TimerEvent::TimerEventIs(evLoop_));
    if (!evLoop_->runsWhenIdle()) {
        eventLoopKeepAliveClockIs(TimerEvent::TimerEventIs(evLoop_));
        keepAliveClock_->notifier()->timeMinIs(keepAlive);
    }
}

TaskSchedulerEventLoop::~TaskSchedulerEventLoop() {
    dropOwnTasks();
    TaskSchedulerEventLoop::moxDoZombieReactors(true);
    eventLoopKeepAliveClockDel();
    clockDel();
}

void TaskSchedulerEventLoop::hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive())
        return;
    TaskSchedulerRoot::hasNotificationActiveIs(active);
    if (clock_)
        clock_->hasNotificationActiveIs(active);
    if (keepAliveClock_)
        keepAliveClock_->hasNotificationActiveIs(active);
    if (active && schedulerHasRunnableTasks())
        requestSchedulerRun(); // one that came due meanwhile was spent
}

void TaskSchedulerEventLoop::moxDoZombieReactors(bool zombie) {
    if (zombie == zombieReactors_)
        return;
    if (clock_)
        clock_->moxDoZombieReactors(zombie);
    if (keepAliveClock_)
        keepAliveClock_->moxDoZombieReactors(zombie);
    TaskSchedulerRoot::moxDoZombieReactors(zombie);
}

void TaskSchedulerEventLoop::clockIs(Mox::Ptr<TimerEvent> const& event) {
    if (clock_ && clock_->rawEvent() == event)
        return;
    clockOn(clock_, this, event);
    if (schedulerHasRunnableTasks())
        requestSchedulerRun(); // the former event took the request along
}

void TaskSchedulerEventLoop::clockDel() { dropClock(clock_); }

void TaskSchedulerEventLoop::eventLoopKeepAliveClockIs(Mox::Ptr<TimerEvent> const& event) {
    clockOn(keepAliveClock_, this, event);
}

void TaskSchedulerEventLoop::eventLoopKeepAliveClockDel() { dropClock(keepAliveClock_); }

void TaskSchedulerEventLoop::requestSchedulerRun() {
    if (!clock_)
        return;
    if (TimerEvent* const event = clock_->rawEvent())
        event->timeMinIs(0.0);
}

void TaskSchedulerEventLoop::keepEventLoopAlive() {
    MOX_ASSERT_AS("!evLoop()->useMoxEventLoop()", !evLoop()->useMoxEventLoop());
    if (keepAliveClock_ && keepAliveClock_->notifier())
        keepAliveClock_->notifier()->timeMinIs(keepAlive);
}

void TaskSchedulerEventLoop::MoxClock::onClock() {
    if (root_)
        root_->handleSchedulerRun();
}

void TaskSchedulerEventLoop::MoxEventLoopKeepAliveClock::onClock() {
    if (root_)
        root_->keepEventLoopAlive();
}

} // namespace Kel
