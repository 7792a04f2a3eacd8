#pragma once

#include <task/Task.h>

#include <boost/container/deque.hpp>

#include <cstddef>
#include <memory>
#include <utility>

namespace KelKv {

/// What is left of something large, to be freed piece by piece.
class Remains {
  public:
    virtual ~Remains() = default;
    /// Frees one piece, in microseconds; false when there was none.
    virtual bool dropOne() = 0;
};

/// The elements of a container, from the last on.
template <class Container> class RemainsOf : public Remains {
  public:
    explicit RemainsOf(Container&& container) : container_(std::move(container)) {}
    bool dropOne() override {
        if (container_.empty())
            return false;
        container_.pop_back();
        return true;
    }

  private:
    Container container_;
};

/// Frees what is large in slices: freeing a million keys or half a gigabyte at once would hold the thread for
/// a good part of a second. It takes turns with what takes long, and does not wait until nobody has anything
/// better to do: clients that never fall silent would fill the memory meanwhile.
class Scavenger : public Kel::Task::Notifiee {
  public:
    static constexpr Mox::Seconds quantum = 0.0002;

    explicit Scavenger(Mox::Ptr<Kel::TaskScheduler> const& scheduler)
        : task_(Kel::Task::TaskIs(scheduler, Kel::TaskPriority::low, "scavenger")) {
        task_->taskQuantumIs(quantum);
        notifierIs(task_);
    }

    void add(std::unique_ptr<Remains> remains) {
        remains_.push_back(std::move(remains));
        task_->scheduleTask();
    }

    /// Frees all at once: at the end, for what is left may hold the scavenger.
    void clear() {
        while (!remains_.empty()) {
            auto const last = std::move(remains_.back()); // which may add some
            remains_.pop_back();
        }
    }

    /// Frees a piece of what there is, for somebody who takes as much; false when there was none.
    bool dropOne() {
        while (!remains_.empty()) {
            if (remains_.back()->dropOne())
                return true;
            remains_.pop_back();
        }
        return false;
    }

    /// One piece at least, however short the quantum is.
    void onTaskRun() override {
        while (dropOne()) {
            task_->taskWorkCountInc(1);
            if (task_->taskShouldYield())
                return task_->scheduleTask();
        }
    }

  private:
    Mox::Ptr<Kel::Task> const task_;
    boost::container::deque<std::unique_ptr<Remains>> remains_;
};

} // namespace KelKv
