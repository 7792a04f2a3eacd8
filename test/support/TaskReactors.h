#pragma once

#include <mox/detail/FunctionReactor.h>
#include <support/Names.h>
#include <task/TimerTask.h>

#include <string_view>

namespace TestSupport {

/// Calls a function when its task runs; the function may destroy it.
struct OnRun : FunctionReactor<Task::Notifiee> {
    OnRun(Ptr<Task const> const& task, std::function<void()> call)
        : FunctionReactor(task, taskRunChanged, std::move(call)) {}
    void onTaskRun() override { call(); }
};

/// Calls a function with the name of each callback that it gets; the function may destroy it.
class OnAnything : public Task::Notifiee {
  public:
    using Call = std::function<void(std::string_view)>;

    OnAnything(Ptr<Task const> const& task, Call call) : call_(std::move(call)) { notifierIs(task); }
    void onTaskBusy() override { tell("onTaskBusy"); }
    void onTaskSuspendedForTest() override { tell("onTaskSuspendedForTest"); }
    void onTaskForceYieldInTest() override { tell("onTaskForceYieldInTest"); }
    void onTaskWorkCount() override { tell("onTaskWorkCount"); }
    void onTaskQuantumViolation500() override { tell("onTaskQuantumViolation500"); }
    void onTaskQuantumViolation200() override { tell("onTaskQuantumViolation200"); }
    void onTaskRun() override { tell("onTaskRun"); }
    void onTaskCurrentlyRunning() override { tell("onTaskCurrentlyRunning"); }

  private:
    void tell(std::string_view callback) { Call{call_}(callback); }
    Call const call_;
};

} // namespace TestSupport
