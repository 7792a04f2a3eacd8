#pragma once

#include <bench/Floor.h>

#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Bench {

/// A root on an event loop, with n tasks that schedule themselves in every run: normal ones, or half high and
/// half low.
class TaskLoad {
  public:
    explicit TaskLoad(std::uint64_t n, Mox::Ptr<Kel::EventLoop> const& loop = Kel::EventLoop::EventLoopIs(),
                      bool twoPriorities = false)
        : loop_(loop), root_(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("bench", loop)) {
        for (std::uint64_t i = 0; i < n; ++i) {
            reactors_.push_back(new Rescheduling(*this));
            auto const priority = !twoPriorities ? Kel::TaskPriority::normal
                                  : i % 2 == 0   ? Kel::TaskPriority::high
                                                 : Kel::TaskPriority::low;
            reactors_.back()->notifierIs(
                Kel::Task::TaskIs(root_, priority, "task-" + std::to_string(i % 1000)));
        }
        for (std::uint32_t const i : shuffled(n))
            reactors_[i]->notifier()->scheduleTask();
    }

    void run(std::uint64_t runs) {
        left_ = runs;
        loop_->run();
    }

  private:
    class Rescheduling : public Kel::Task::Notifiee {
      public:
        explicit Rescheduling(TaskLoad& load) : load_(load) {}
        void onTaskRun() override {
            notifier()->scheduleTask();
            load_.ran();
        }

      private:
        TaskLoad& load_;
    };

    void ran() {
        if (--left_ == 0)
            loop_->stop();
    }

    Mox::Ptr<Kel::EventLoop> const loop_;
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root_;
    std::uint64_t left_ = 0;
    std::vector<Mox::Ptr<Rescheduling>> reactors_; // the tasks go with them
};

/// The same load on the floor.
template <bool... parts> class FloorLoad {
  public:
    explicit FloorLoad(std::uint64_t n) {
        for (std::uint64_t i = 0; i < n; ++i)
            items_.push_back(std::make_unique<Rescheduling>(floor_));
        for (std::uint32_t const i : shuffled(n))
            floor_.schedule(*items_[i]);
    }

    void run(std::uint64_t runs) { floor_.run(runs); }

  private:
    class Rescheduling : public FloorItem {
      public:
        explicit Rescheduling(Floor<parts...>& floor) : floor_(floor) {}
        void onRun() override { floor_.schedule(*this); }

      private:
        Floor<parts...>& floor_;
    };

    std::vector<std::unique_ptr<FloorItem>> items_;
    Floor<parts...> floor_;
};

} // namespace Bench
