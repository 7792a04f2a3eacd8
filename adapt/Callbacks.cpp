#define MOX_SOURCE_NAME "Callbacks"
#include <adapt/Callbacks.h>

#include <mox/Assert.h>

#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include <utility>

namespace Kel {

using Mox::Ptr;
using Mox::U32;

namespace {

/// A reactor of the given base that hears one notification. Its derived class has every callback of the base
/// call(); the switches see to it that only one of them comes.
template <class Base> class Callback : public Base {
  public:
    template <class X> Callback(Ptr<X> const& notifier, U32 notification, Function function) {
        MOX_ASSERT(function);
        held_ = new Held(std::move(function));
        for (U32 other = 0; other < 32; ++other)
            this->notificationActiveIs(other, other == notification);
        this->notifierIs(notifier);
    }

  protected:
    void call() {
        Ptr<Held> const held = held_; // the function may let this reactor go
        held->function();
    }

  private:
    struct Held : boost::intrusive_ref_counter<Held, boost::thread_unsafe_counter> {
        explicit Held(Function f) : function(std::move(f)) {}
        Function const function;
    };

    Ptr<Held> held_;
};

struct TaskCallback final : Callback<Task::NotifieeConst> {
    using Callback::Callback;
    void onTaskBusy() override { call(); }
    void onTaskSuspendedForTest() override { call(); }
    void onTaskForceYieldInTest() override { call(); }
    void onTaskWorkCount() override { call(); }
    void onTaskQuantumViolation500() override { call(); }
    void onTaskQuantumViolation200() override { call(); }
    void onTaskRun() override { call(); }
    void onTaskCurrentlyRunning() override { call(); }
};

struct TimerTaskCallback final : Callback<TimerTask::NotifieeConst> {
    using Callback::Callback;
    void onTimerTaskInitComplete() override { call(); }
};

struct ParentTaskCallback final : Callback<TaskGroupParentTask::NotifieeConst> {
    using Callback::Callback;
    void onTaskGroup() override { call(); }
};

struct EventCallback final : Callback<TimerEvent::NotifieeConst> {
    using Callback::Callback;
    void onClock() override { call(); }
};

/// Of a wheel or of a clock.
template <class Base> struct TimerCallback final : Callback<Base> {
    using Callback<Base>::Callback;
    void onTime() override { this->call(); }
};

constexpr U32 onlyNotification = 0; // of a type that has but one

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
