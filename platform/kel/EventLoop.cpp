#define MOX_SOURCE_NAME "EventLoop"
#include <kel/EventLoop.h>

#include <mox/ActivityManager.h>
#include <mox/Assert.h>
#include <mox/TurnLoop.h>
#include <mox/Type.h>

namespace Kel {

MOX_DEFINE_TYPE(EventLoop, "Kel::EventLoop", &Mox::PtrInterface::type())

EventLoop::EventLoop() : manager_(Mox::activityManager()) {}

EventLoop::~EventLoop() = default;

Mox::Ptr<EventLoop> EventLoop::EventLoopIs() {
    Mox::Ptr<EventLoop> loop = new EventLoop;
    loop->ownLoop_ = std::make_unique<Mox::TurnLoop>();
    loop->loop_ = loop->ownLoop_.get();
    loop->hasNotificationActiveIs(true);
    return loop;
}

Mox::Ptr<EventLoop> EventLoop::EventLoopIs(boost::asio::io_context& ioContext) {
    Mox::Ptr<EventLoop> loop = new EventLoop;
    loop->ownLoop_ = std::make_unique<Mox::TurnLoop>(ioContext, *loop);
    loop->loop_ = loop->ownLoop_.get();
    loop->hasNotificationActiveIs(true);
    return loop;
}

/// Other users of the manager's loop decide when that ends, so a loop carried by it waits when it is idle.
Mox::Ptr<EventLoop> EventLoop::EventLoopIs(Mox::Ptr<Mox::ActivityManager> const& manager) {
    Mox::Ptr<EventLoop> loop = new EventLoop;
    loop->manager_ = manager;
    loop->loop_ = &manager->turnLoop();
    loop->runsWhenIdle_ = true;
    loop->hasNotificationActiveIs(true);
    return loop;
}

boost::asio::io_context& EventLoop::ioContext() const { return loop_->ioContext(); }

/// This and the other run functions hold the loop, since a callback may let the last other reference go.
void EventLoop::run() {
    Mox::Ptr<EventLoop> const self = this;
    loop_->run(runsWhenIdle_);
}

void EventLoop::runUntil(Mox::Seconds time) {
    Mox::Ptr<EventLoop> const self = this;
    loop_->runUntil(time, runsWhenIdle_);
}

Mox::U64 EventLoop::runOnce() {
    Mox::Ptr<EventLoop> const self = this;
    return loop_->runOnce();
}

void EventLoop::stop() { loop_->stop(); }

Mox::Seconds EventLoop::nextDue() const { return loop_->nextDue(); }

void EventLoop::runsWhenIdleIs(bool runsWhenIdle) {
    MOX_ASSERT_AS("runsWhenIdle || !useMoxEventLoop()", runsWhenIdle || !useMoxEventLoop());
    runsWhenIdle_ = runsWhenIdle;
}

} // namespace Kel
