#pragma once

#include <task/Task.h>

#include <utility>
#include <vector>

namespace KelKv {

/// Empties containers in slices, when the process has nothing better to do: freeing a million keys at once
/// would hold the thread for a good part of a second.
template <class Container> class Scavenger : public Kel::Task::Notifiee {
  public:
    static constexpr Mox::Seconds quantum = 0.0002;

    explicit Scavenger(Mox::Ptr<Kel::TaskScheduler> const& scheduler)
        : task_(Kel::Task::TaskIs(scheduler, Kel::TaskPriority::scavenge, "scavenger")) {
        task_->taskQuantumIs(quantum);
        notifierIs(task_);
    }

    void add(std::vector<Container>&& heap) {
        heaps_.push_back(std::move(heap));
        task_->scheduleTask();
    }

    void onTaskRun() override {
        while (!heaps_.empty()) {
            std::vector<Container>& heap = heaps_.back();
            while (!heap.empty()) {
                if (!isEmptied(heap.back()))
                    return task_->scheduleTask();
                heap.pop_back();
            }
            heaps_.pop_back();
        }
    }

  private:
    /// False when the quantum ended first.
    bool isEmptied(Container& container) {
        std::size_t const size = container.size();
        for (auto at = container.begin(); at != container.end() && !task_->taskShouldYield();)
            container.erase(at++);
        task_->taskWorkCountInc(size - container.size());
        return container.empty();
    }

    Mox::Ptr<Kel::Task> const task_;
    std::vector<std::vector<Container>> heaps_;
};

} // namespace KelKv
