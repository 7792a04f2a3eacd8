#pragma once

#include <group/TaskGroupParentTask.h>
#include <kel/TimerEvent.h>
#include <kel/TimerWheel.h>
#include <task/TimerTask.h>

#include <functional>

namespace Kel {

/// Reactors made of functions: for an application that wants a function called, not a class derived.
///
///     auto const work = Kel::onTaskRun(task, [&] { ... });
///
/// The reactor works as long as it is held, and holds its notifier. Of all notifications it has switched on
/// only its own. The function may let the reactor go while it runs, and what it throws goes the way of all
/// that reactors throw. A reactor with state, or with several callbacks, is better a class derived from the
/// notifier's Notifiee.
///
/// Thread rule: the notifier's. Lifetime: the function is destroyed with the reactor, or, when that goes
/// during a call, at the end of the call.
///
/// Requires: the function is not empty.
using Function = std::function<void()>;

template <class X> using CallbackOn = Mox::Ptr<typename X::NotifieeConst>;

MOX_EXPORT CallbackOn<Task> onTaskBusy(Mox::Ptr<Task const> const& task, Function function);
MOX_EXPORT CallbackOn<Task> onTaskSuspendedForTest(Mox::Ptr<Task const> const& task, Function function);
MOX_EXPORT CallbackOn<Task> onTaskForceYieldInTest(Mox::Ptr<Task const> const& task, Function function);
MOX_EXPORT CallbackOn<Task> onTaskWorkCount(Mox::Ptr<Task const> const& task, Function function);
MOX_EXPORT CallbackOn<Task> onTaskQuantumViolation500(Mox::Ptr<Task const> const& task, Function function);
MOX_EXPORT CallbackOn<Task> onTaskQuantumViolation200(Mox::Ptr<Task const> const& task, Function function);
/// The task's work.
MOX_EXPORT CallbackOn<Task> onTaskRun(Mox::Ptr<Task const> const& task, Function function);
MOX_EXPORT CallbackOn<Task> onTaskCurrentlyRunning(Mox::Ptr<Task const> const& task, Function function);

MOX_EXPORT CallbackOn<TimerTask> onTimerTaskInitComplete(Mox::Ptr<TimerTask const> const& task,
                                                         Function function);

MOX_EXPORT CallbackOn<TaskGroupParentTask> onTaskGroup(Mox::Ptr<TaskGroupParentTask const> const& task,
                                                       Function function);

MOX_EXPORT CallbackOn<TimerEvent> onClock(Mox::Ptr<TimerEvent const> const& event, Function function);

// A timer of a wheel or of a clock; arm it by `timeMinIs(t)`.
MOX_EXPORT CallbackOn<TimerWheel> onTime(Mox::Ptr<TimerWheel const> const& wheel, Function function);
MOX_EXPORT CallbackOn<Mox::Clock> onTime(Mox::Ptr<Mox::Clock const> const& clock, Function function);

} // namespace Kel
