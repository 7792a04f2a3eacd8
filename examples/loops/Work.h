#pragma once

#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <task/PeriodicTask.h>

/// What the programs of this folder have the library do beside their own events: a low task counts in slices
/// of 1 ms, and a periodic one ticks. Their loops differ; this does not.
class Work {
  public:
    explicit Work(Mox::Ptr<Kel::EventLoop> const& loop)
        : root_(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop)) {
        counting_->taskQuantumIs(0.001);
        counting_->scheduleTask();
        ticking_->start();
    }

    bool done() const { return counting_->taskWorkCount() >= enough && ticks_ >= 5; }

  private:
    static constexpr Mox::U64 enough = 100'000;

    void count() {
        while (counting_->taskWorkCount() < enough && !counting_->taskShouldYield())
            counting_->taskWorkCountInc(1);
        if (counting_->taskWorkCount() < enough)
            counting_->scheduleTask();
    }

    int ticks_ = 0;
    Mox::Ptr<Kel::TaskScheduler> const root_;
    Mox::Ptr<Kel::Task> const counting_ = Kel::Task::TaskIs(root_, Kel::TaskPriority::low, "counting");
    Kel::CallbackOn<Kel::Task> const slices_ = Kel::onTaskRun(counting_, [this] { count(); });
    Mox::Ptr<Kel::PeriodicTask> const ticking_ = Kel::PeriodicTask::PeriodicTaskIs(
        root_, Kel::TaskPriority::high, "ticking", 0.02, [this] { ++ticks_; });
};
