#include <kel/TimerEvent.h>

#include <mox/Type.h>

namespace Kel {

MOX_DEFINE_TYPE(TimerEvent, "Kel::TimerEvent", &Mox::PtrInterface::type())

Mox::Ptr<TimerEvent> TimerEvent::TimerEventIs(Mox::Ptr<EventLoop> const& evLoop) {
    Mox::Ptr<TimerEvent> event = new TimerEvent(evLoop);
    event->hasNotificationActiveIs(true);
    return event;
}

TimerEvent::TimerEvent(Mox::Ptr<EventLoop> const& evLoop) : evLoop_(evLoop), wakeup_(*this) {}

TimerEvent::Expiry::Expiry(TimerEvent& event) : Wakeup(event.evLoop_->turnLoop()), event_(event) {}

/// An event that is switched off when it comes due is spent, as a muted reactor's is.
void TimerEvent::Expiry::onWakeup() {
    if (event_.hasNotificationActive())
        event_.reactors_.notify<0>();
}

void TimerEvent::NotifieeConst::handleNotification(Mox::U32 notification) {
    if (notification == 0)
        onClock();
}

} // namespace Kel
