#pragma once

#include <kel/TimerEvent.h>
#include <mox/detail/FunctionReactor.h>

namespace TestSupport {

/// A timer reactor (of a clock or of a wheel) that calls a function; the function may destroy it.
template <class R> struct TimerCall : Mox::FunctionReactor<R> {
    template <class Notifier>
    TimerCall(Mox::Ptr<Notifier> const& notifier, std::function<void()> call)
        : Mox::FunctionReactor<R>(notifier, 0, std::move(call)) {}
    void onTime() override { this->call(); }
};

/// A timer event with a reactor that calls a function; the function may destroy both.
struct EventCall {
    EventCall(Mox::Ptr<Kel::EventLoop> const& loop, std::function<void()> call)
        : event(Kel::TimerEvent::TimerEventIs(loop)), reactor(new Reactor(event, 0, std::move(call))) {}
    void in(Mox::Seconds delay) { event->timeMinIs(delay); }

    struct Reactor : Mox::FunctionReactor<Kel::TimerEvent::Notifiee> {
        using FunctionReactor::FunctionReactor;
        void onClock() override { call(); }
    };
    Mox::Ptr<Kel::TimerEvent> const event;
    Mox::Ptr<Kel::TimerEvent::Notifiee> const reactor;
};

} // namespace TestSupport
