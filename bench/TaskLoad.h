#pragma once

#include <bench/Floor.h>

#include <group/TaskGroup.h>
#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Bench {

/// How a load departs from tasks of normal priority, in the root, with one reactor each.
struct Shape {
    bool twoPriorities = false; // half the tasks are high, half are low
    unsigned reactors = 1;      // all but the first do nothing
    unsigned groups = 0;        // the tasks are in the lowest of so many, one in the other
};

/// A root on an event loop, with n tasks that schedule themselves in every run.
class TaskLoad {
  public:
    explicit TaskLoad(std::uint64_t n, Mox::Ptr<Kel::EventLoop> const& loop = Kel::EventLoop::EventLoopIs(),
                      Shape const& shape = {})
        : loop_(loop), root_(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("bench", loop)) {
        auto const scheduler = lowestGroup(shape.groups);
        for (std::uint64_t i = 0; i < n; ++i) {
            reactors_.push_back(new Rescheduling(*this));
            auto const priority = !shape.twoPriorities ? Kel::TaskPriority::normal
                                  : i % 2 == 0         ? Kel::TaskPriority::high
                                                       : Kel::TaskPriority::low;
            reactors_.back()->notifierIs(
                Kel::Task::TaskIs(scheduler, priority, "task-" + std::to_string(i % 1000)));
        }
        for (unsigned i = 1; i < shape.reactors; ++i)
            for (std::uint64_t k = 0; k < n; ++k) {
                others_.push_back(new Kel::Task::Notifiee);
                others_.back()->notifierIs(reactors_[k]->notifier());
            }
        for (std::uint32_t const i : shuffled(n))
            reactors_[i]->notifier()->scheduleTask();
    }

    /// Returns how many it made, so many at least.
    std::uint64_t run(std::uint64_t runs) {
        left_ = runs;
        loop_->run();
        return runs - left_;
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

    /// The lowest of so many groups, one in the other; or the root.
    Mox::Ptr<Kel::TaskScheduler> lowestGroup(unsigned levels) {
        Mox::Ptr<Kel::TaskScheduler> scheduler = root_;
        for (; levels > 0; --levels) {
            groups_.push_back(
                Kel::TaskGroup::TaskGroupIs("group", Kel::TaskPriority::normal, false, scheduler));
            scheduler = groups_.back();
        }
        return scheduler;
    }

    void ran() {
        if (--left_ == 0)
            loop_->stop();
    }

    Mox::Ptr<Kel::EventLoop> const loop_;
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root_;
    std::uint64_t left_ = 0; // wraps below 0
    std::vector<Mox::Ptr<Kel::TaskGroup>> groups_;
    std::vector<Mox::Ptr<Rescheduling>> reactors_; // the tasks go with them
    std::vector<Mox::Ptr<Kel::Task::Notifiee>> others_;
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

    std::uint64_t run(std::uint64_t runs) {
        floor_.run(runs);
        return runs;
    }

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
