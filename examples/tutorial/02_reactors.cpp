// Two reactors on one task: a function that works, and an object that watches.

#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>
#include <stdexcept>

/// Counts how often a task became busy, and stops the loop when it has become idle.
class Watcher : public Kel::Task::Notifiee {
  public:
    Watcher(Mox::Ptr<Kel::Task> const& task, Mox::Ptr<Kel::EventLoop> loop) : loop_(std::move(loop)) {
        notifierIs(task);
    }

    void onTaskBusy() override {
        if (notifier()->taskBusy())
            ++timesBusy_;
        else
            loop_->stop();
    }
    void onTaskWorkCount() override { std::cout << notifier()->taskWorkCount() << " done\n"; }
    void onTaskRun() override { throw std::runtime_error("a watcher does no work"); }
    void onException(std::exception_ptr) noexcept override { ++exceptions_; }

    int timesBusy() const { return timesBusy_; }
    int exceptions() const { return exceptions_; }

  private:
    Mox::Ptr<Kel::EventLoop> const loop_;
    int timesBusy_ = 0;
    int exceptions_ = 0;
};

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    auto const task = Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "counting");
    Mox::Ptr<Watcher> const watcher = new Watcher(task, loop);
    auto const work = Kel::onTaskRun(task, [&] {
        task->taskWorkCountInc(1);
        if (task->taskWorkCount() < 3)
            task->scheduleTask();
    });

    task->scheduleTask();
    loop->run();

    bool const asExpected = task->taskRun() == 3 && watcher->timesBusy() == 1 && watcher->exceptions() == 3;
    return asExpected ? 0 : 1;
}
