#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerEventLoop.h>

#include <kel/EventLoopTimerWheel.h>
#include <mox/Assert.h>
#include <mox/Type.h>
#include <task/detail/TaskTrace.h>

namespace Kel {

namespace {

constexpr Mox::Seconds keepAlive = 600.0;
constexpr Mox::U32 wheelTicks = 8640000; // a day
constexpr Mox::U32 wheelBuckets = 1024;

} // namespace

MOX_DEFINE_TYPE(TaskSchedulerEventLoop, "Kel::TaskSchedulerEventLoop", &TaskSchedulerRoot::type())

Mox::Ptr<TaskSchedulerEventLoop>
TaskSchedulerEventLoop::TaskSchedulerEventLoopIs(Mox::String8 const& name,
                                                 Mox::Ptr<EventLoop> const& evLoop) {
    Mox::Ptr<TaskSchedulerEventLoop> root = new TaskSchedulerEventLoop(name, evLoop);
    root->stepsAreOwn();
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

/// The wheel comes first: whoever hears of the scheduler may make timer tasks at once.
void TaskSchedulerEventLoop::handleInitialized() {
    MOX_TRACE_AT(taskSchedulerTrace, 4, schedulerName() << ": Scheduler created");
    timerWheelIs(EventLoopTimerWheel::EventLoopTimerWheelIs(nullptr, nullptr, timerWheelTickInMsec(),
                                                            wheelTicks, true, wheelBuckets, evLoop_));
    clockIs(TimerEvent::TimerEventIs(evLoop_));
    if (!evLoop_->runsWhenIdle())
        eventLoopKeepAliveClockIs(TimerEvent::TimerEventIs(evLoop_));
}

TaskSchedulerEventLoop::~TaskSchedulerEventLoop() = default;

/// A request that was under way is armed on the former event, whose expiry nobody hears any more: it is made
/// again.
void TaskSchedulerEventLoop::clockIs(Mox::Ptr<TimerEvent> const& event) {
    if (clock_ && clock_->rawEvent() == event)
        return;
    clock_.madeFor(this)->notifierIs(event);
    if (schedulerHasRunnableTasks())
        requestSchedulerRun(); // the former event took the request along
}

void TaskSchedulerEventLoop::clockDel() { clock_.drop(); }

/// It is always armed, also where it takes another's place.
void TaskSchedulerEventLoop::eventLoopKeepAliveClockIs(Mox::Ptr<TimerEvent> const& event) {
    keepAliveClock_.madeFor(this)->notifierIs(event);
    if (event)
        event->timeMinIs(keepAlive);
}

void TaskSchedulerEventLoop::eventLoopKeepAliveClockDel() { keepAliveClock_.drop(); }

/// Zero seconds from now is the loop's next turn, so that descriptors and timers have theirs between two
/// passes. Arming an armed event changes nothing: requests before the turn are one.
void TaskSchedulerEventLoop::requestSchedulerRun() {
    if (!clock_)
        return;
    if (TimerEvent* const event = clock_->rawEvent())
        event->timeMinIs(0.0);
}

/// The activity manager's loop waits when it is idle; a timer that keeps it alive would be a mistake of the
/// caller's.
void TaskSchedulerEventLoop::keepEventLoopAlive() {
    MOX_ASSERT_AS("!evLoop()->useMoxEventLoop()", !evLoop()->useMoxEventLoop());
    if (keepAliveClock_ && keepAliveClock_->notifier())
        keepAliveClock_->notifier()->timeMinIs(keepAlive);
}

/// Passes follow each other here for as long as the loop's next turn begins with them: the road through the
/// loop and the event is longer than a short run. A run may let the root go, or give it another event, which
/// may be another loop's.
void TaskSchedulerEventLoop::MoxClock::onClock() {
    Mox::Ptr<MoxClock> const self = this;
    Mox::Ptr<TimerEvent> const event = rawEvent();
    bool const isFired = event && event->fires();
    do
        if (owner())
            owner()->handleSchedulerRun();
    while (isFired && event == rawEvent() && event->firesAgainFor(*this));
}

void TaskSchedulerEventLoop::MoxEventLoopKeepAliveClock::onClock() {
    if (owner())
        owner()->keepEventLoopAlive();
}

} // namespace Kel
