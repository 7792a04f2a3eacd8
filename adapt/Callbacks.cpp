#define MOX_SOURCE_NAME "Callbacks"
#include <adapt/Callbacks.h>

#include <mox/detail/FunctionReactor.h>

#include <utility>

namespace Kel {

using Mox::Ptr;
using Mox::U32;

namespace {

// One class for each notifying type, not for each notification: all of a task's end in the same call, and the
// switches, of which only one is on, tell them apart without a look at the function. FunctionReactor keeps
// the function alive until its call ends, also when the call lets the reactor go.

struct TaskCallback final : Mox::FunctionReactor<Task::NotifieeConst> {
    using FunctionReactor::FunctionReactor;
    void onTaskBusy() override { call(); }
    void onTaskSuspendedForTest() override { call(); }
    void onTaskForceYieldInTest() override { call(); }
    void onTaskWorkCount() override { call(); }
    void onTaskQuantumViolation500() override { call(); }
    void onTaskQuantumViolation200() override { call(); }
    void onTaskRun() override { call(); }
    void onTaskCurrentlyRunning() override { call(); }
};

struct TimerTaskCallback final : Mox::FunctionReactor<TimerTask::NotifieeConst> {
    using FunctionReactor::FunctionReactor;
    void onTimerTaskInitComplete() override { call(); }
};

struct ParentTaskCallback final : Mox::FunctionReactor<TaskGroupParentTask::NotifieeConst> {
    using FunctionReactor::FunctionReactor;
    void onTaskGroup() override { call(); }
};

struct EventCallback final : Mox::FunctionReactor<TimerEvent::NotifieeConst> {
    using FunctionReactor::FunctionReactor;
    void onClock() override { call(); }
};

/// Of a wheel or of a clock.
template <class Base> struct TimerCallback final : Mox::FunctionReactor<Base> {
    using Mox::FunctionReactor<Base>::FunctionReactor;
    void onTime() override { this->call(); }
};

/// Of a type that has but one.
constexpr U32 onlyNotification = 0;

using Of = Task::NotifieeConst;

} // namespace

CallbackOn<Task> onTaskBusy(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskBusyChanged, std::move(function));
}

CallbackOn<Task> onTaskSuspendedForTest(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskSuspendedForTestChanged, std::move(function));
}

CallbackOn<Task> onTaskForceYieldInTest(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskForceYieldInTestChanged, std::move(function));
}

CallbackOn<Task> onTaskWorkCount(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskWorkCountChanged, std::move(function));
}

CallbackOn<Task> onTaskQuantumViolation500(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskQuantumViolation500Changed, std::move(function));
}

CallbackOn<Task> onTaskQuantumViolation200(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskQuantumViolation200Changed, std::move(function));
}

CallbackOn<Task> onTaskRun(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskRunChanged, std::move(function));
}

CallbackOn<Task> onTaskCurrentlyRunning(Ptr<Task const> const& task, Function function) {
    return new TaskCallback(task, Of::taskCurrentlyRunningChanged, std::move(function));
}

CallbackOn<TimerTask> onTimerTaskInitComplete(Ptr<TimerTask const> const& task, Function function) {
    return new TimerTaskCallback(task, TimerTask::NotifieeConst::timerTaskInitCompleteChanged,
                                 std::move(function));
}

CallbackOn<TaskGroupParentTask> onTaskGroup(Ptr<TaskGroupParentTask const> const& task, Function function) {
    return new ParentTaskCallback(task, TaskGroupParentTask::NotifieeConst::taskGroupChanged,
                                  std::move(function));
}

CallbackOn<TimerEvent> onClock(Ptr<TimerEvent const> const& event, Function function) {
    return new EventCallback(event, onlyNotification, std::move(function));
}

CallbackOn<TimerWheel> onTime(Ptr<TimerWheel const> const& wheel, Function function) {
    return new TimerCallback<TimerWheel::NotifieeConst>(wheel, onlyNotification, std::move(function));
}

CallbackOn<Mox::Clock> onTime(Ptr<Mox::Clock const> const& clock, Function function) {
    return new TimerCallback<Mox::Clock::NotifieeConst>(clock, onlyNotification, std::move(function));
}

} // namespace Kel
