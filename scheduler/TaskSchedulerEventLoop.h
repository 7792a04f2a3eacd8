#pragma once

#include <kel/EventLoop.h>
#include <kel/TimerEvent.h>
#include <scheduler/TaskSchedulerRoot.h>

namespace Kel {

/// The root for a process whose loop is a Kel::EventLoop: each request arms a timer event for the next turn,
/// whose expiry runs one pass; turns that would be the root's alone follow each other there. It makes the
/// tree's timer wheel on the same loop, and, on a loop whose `run()` would return when nothing is pending,
/// keeps one long timer armed.
///
/// Thread rule: made on the loop's thread, which becomes the scheduler thread. Lifetime: it holds the loop,
/// the loop does not hold it; once it is released no call reaches it any more.
class MOX_EXPORT TaskSchedulerEventLoop : public TaskSchedulerRoot {
  public:
    class MoxClock;
    class MoxEventLoopKeepAliveClock;

    static Mox::Ptr<TaskSchedulerEventLoop> TaskSchedulerEventLoopIs(Mox::String8 const& name,
                                                                     Mox::Ptr<EventLoop> const& evLoop);
    TaskSchedulerEventLoop(Mox::String8 const& name, Mox::Ptr<EventLoop> const& evLoop);

    Mox::Type const* fwkType() const override;
    ~TaskSchedulerEventLoop() override;
    /// Has a pass run at the next turn; several requests before it collapse into one.
    void requestSchedulerRun() override;

    /// Re-arms the keep-alive timer. Requires: the loop is not carried by the activity manager's.
    void keepEventLoopAlive();

    Mox::Ptr<EventLoop> const& evLoop() const { return evLoop_; }
    Mox::Ptr<MoxClock> const& clock() const { return clock_.ptr(); }
    void clockIs(Mox::Ptr<TimerEvent> const& event);
    void clockDel();
    /// Null when the loop needs none.
    Mox::Ptr<MoxEventLoopKeepAliveClock> const& eventLoopKeepAliveClock() const {
        return keepAliveClock_.ptr();
    }
    void eventLoopKeepAliveClockIs(Mox::Ptr<TimerEvent> const& event);
    void eventLoopKeepAliveClockDel();

    static Mox::Type const& type();

  private:
    void handleInitialized();

    Mox::Ptr<EventLoop> const evLoop_;
    Mox::OwnReactor<MoxClock> clock_{ownReactors_};
    Mox::OwnReactor<MoxEventLoopKeepAliveClock> keepAliveClock_{ownReactors_};
};

/// A reactor of the root on a timer event.
class MOX_EXPORT TaskSchedulerEventLoop::MoxClock
    : public Mox::OwnedReactor<TimerEvent::Notifiee, TaskSchedulerEventLoop> {
  public:
    /// The root is told until null is given.
    void taskSchedulerEventLoopIs(TaskSchedulerEventLoop* root) { ownerIs(root); }
    void onClock() override;
    /// The timer event, uncounted: each run request asks for it.
    TimerEvent* rawEvent() const {
        return const_cast<TimerEvent*>(static_cast<TimerEvent const*>(rawNotifier()));
    }
};

/// The root's reactor on the timer that keeps a loop turning.
class MOX_EXPORT TaskSchedulerEventLoop::MoxEventLoopKeepAliveClock
    : public Mox::OwnedReactor<TimerEvent::Notifiee, TaskSchedulerEventLoop> {
  public:
    /// The root is told until null is given.
    void taskSchedulerEventLoopIs(TaskSchedulerEventLoop* root) { ownerIs(root); }
    void onClock() override;
    /// It is never switched off: a loop must not run dry because its root is silent.
    void hasNotificationActiveIs(bool) override {}
};

MOX_EXPORT Mox::Ptr<TaskSchedulerEventLoop> taskSchedulerEventLoopFactory(Mox::String8 const& name,
                                                                          Mox::Ptr<EventLoop> const& evLoop);

} // namespace Kel
