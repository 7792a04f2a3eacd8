#define MOX_SOURCE_NAME "Clock"
#include <mox/Clock.h>

#include <mox/ActivityManager.h>
#include <mox/Assert.h>
#include <mox/TurnLoop.h>
#include <mox/Type.h>
#include <mox/Wakeup.h>

#include <cmath>

namespace Mox {

MOX_DEFINE_TYPE(Clock, "Mox::Clock", &PtrInterface::type())

bool Clock::idleUntil(Seconds) const { return false; }

/// The wakeup of one reactor, on the loop of the thread that armed it first. It holds the manager, since a
/// loop has to outlive its wakeups, and reactors may outlive the thread's locals. The alarm is disarmed
/// before anybody is told: the callback may arm it again, and a muted reactor's alarm is spent all the same.
class Clock::NotifieeConst::Alarm : public Wakeup {
  public:
    Alarm(NotifieeConst& reactor, Ptr<ActivityManager> manager)
        : Wakeup(manager->turnLoop(), reactor.notifier()), reactor_(reactor), manager_(std::move(manager)) {}

  private:
    void onWakeup() override {
        reactor_.timeMin_ = endOfTime;
        if (reactor_.isTold() && reactor_.rawNotifier()->hasNotificationActive())
            ReactorList<NotifieeConst>::notifyOne<0>(&reactor_);
    }

    NotifieeConst& reactor_;
    Ptr<ActivityManager> const manager_;
};

Clock::NotifieeConst::NotifieeConst() = default;
Clock::NotifieeConst::~NotifieeConst() = default;

void Clock::NotifieeConst::timeMinIs(Seconds time) {
    MOX_ASSERT_AS("!std::isnan( time )", !std::isnan(time));
    timeMin_ = time;
    if (time == endOfTime) {
        if (alarm_)
            alarm_->cancel();
        return;
    }
    if (!alarm_) {
        MOX_ASSERT_AS("notifier()", rawNotifier());
        alarm_ = std::make_unique<Alarm>(*this, activityManager());
    }
    alarm_->at(time);
}

/// An alarm is bound to one clock for life; the next arming makes one for the new clock.
void Clock::NotifieeConst::handleNotifier() {
    timeMin_ = endOfTime;
    alarm_.reset();
}

void Clock::NotifieeConst::handleNotification(U32 notification) {
    if (notification == 0)
        onTime();
}

} // namespace Mox
