#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

int main() {
    auto const root =
        Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", Kel::EventLoop::EventLoopIs());
    auto const task = Kel::Task::TaskIs(root, Kel::TaskPriority::low, "counting");
    auto const work = Kel::onTaskRun(task, [&] { // a slice, as long as the task's quantum allows
        while (task->taskWorkCount() < 1'000'000 && !task->taskShouldYield())
            task->taskWorkCountInc(1);
        task->taskWorkCount() < 1'000'000 ? task->scheduleTask() : root->evLoop()->stop();
    });
    task->scheduleTask();
    root->evLoop()->run();
    root->printStats(Kel::StreamDumpContext::StreamDumpContextIs(std::cout), 0, true, true, false, false);
}
