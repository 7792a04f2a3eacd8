#pragma once

#include <kel/TimerEvent.h>

#include <functional>

namespace TestSupport {

/// A timer reactor (of a clock or of a wheel) that calls a function; the function may destroy it.
template <class R> class TimerCall : public R {
  public:
    template <class Notifier>
    TimerCall(Mox::Ptr<Notifier> const& notifier, std::function<void()> call) : call_(std::move(call)) {
        this->notifierIs(notifier);
    }
    void onTime() override {
        auto const call = call_;
        call();
    }

  private:
    std::function<void()> const call_;
};

/// A timer event with a reactor that calls a function; the function may destroy both.
class EventCall {
  public:
    EventCall(Mox::Ptr<Kel::EventLoop> const& loop, std::function<void()> call)
        : event(Kel::TimerEvent::TimerEventIs(loop)), reactor(new Reactor(std::move(call))) {
        reactor->notifierIs(event);
    }
    void in(Mox::Seconds delay) { event->timeMinIs(delay); }

    Mox::Ptr<Kel::TimerEvent> const event;

  private:
    struct Reactor : Kel::TimerEvent::Notifiee {
        explicit Reactor(std::function<void()> function) : call(std::move(function)) {}
        void onClock() override {
            auto const copy = call;
            copy();
        }
        std::function<void()> const call;
    };

  public:
    Mox::Ptr<Kel::TimerEvent::Notifiee> const reactor;
};

} // namespace TestSupport
