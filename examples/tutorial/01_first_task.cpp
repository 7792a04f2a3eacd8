// A task that runs once.

#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    auto const task = Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "greeting");
    auto const work = Kel::onTaskRun(task, [&] {
        std::cout << "hello from " << task->taskName() << "\n";
        loop->stop();
    });

    task->scheduleTask();
    loop->run();

    return task->taskRun() == 1 && !task->taskBusy() ? 0 : 1;
}
