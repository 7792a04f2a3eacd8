#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

using namespace Kel;

int main() {
    auto const root = taskSchedulerEventLoopFactory("root", EventLoop::EventLoopIs());
    auto const task = taskFactory(root, TaskPriority::low, "counting");
    auto const work = onTaskRun(task, [&] { // a slice, as long as the task's quantum allows
        while (!task->taskShouldYield())
            task->taskWorkCountInc(1);
        task->taskRun() < 10 ? task->scheduleTask() : root->evLoop()->stop();
    });
    task->scheduleTask();
    root->evLoop()->run();
    root->printStats(StreamDumpContext::StreamDumpContextIs(std::cout));
}
