#pragma once

#include <task/TimerTask.h>

#include <functional>
#include <string_view>

namespace TestSupport {

/// Calls a function when its task runs; the function may destroy it.
class OnRun : public Kel::Task::Notifiee {
  public:
    OnRun(Mox::Ptr<Kel::Task const> const& task, std::function<void()> call) : call_(std::move(call)) {
        notifierIs(task);
    }
    void onTaskRun() override {
        auto const call = call_;
        call();
    }

  private:
    std::function<void()> const call_;
};

/// Calls a function with the name of each callback that it gets; the function may destroy it.
class OnAnything : public Kel::Task::Notifiee {
  public:
    using Call = std::function<void(std::string_view)>;

    OnAnything(Mox::Ptr<Kel::Task const> const& task, Call call) : call_(std::move(call)) {
        notifierIs(task);
    }
    void onTaskBusy() override { tell("onTaskBusy"); }
    void onTaskSuspendedForTest() override { tell("onTaskSuspendedForTest"); }
    void onTaskForceYieldInTest() override { tell("onTaskForceYieldInTest"); }
    void onTaskWorkCount() override { tell("onTaskWorkCount"); }
    void onTaskQuantumViolation500() override { tell("onTaskQuantumViolation500"); }
    void onTaskQuantumViolation200() override { tell("onTaskQuantumViolation200"); }
    void onTaskRun() override { tell("onTaskRun"); }
    void onTaskCurrentlyRunning() override { tell("onTaskCurrentlyRunning"); }

  private:
    void tell(std::string_view callback) {
        auto const call = call_;
        call(callback);
    }
    Call const call_;
};

} // namespace TestSupport
