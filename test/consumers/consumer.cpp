// A program of somebody who has the library: what it takes from each of the three libraries has to be there
// when it is compiled, linked and run, the types known by name too, which nothing but their names asks for.
#include <adapt/Callbacks.h>
#include <group/TaskGroup.h>
#include <mox/TypeRegistry.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

using namespace Kel;

int main() {
    auto const root = taskSchedulerEventLoopFactory("root", EventLoop::EventLoopIs());
    auto const group = taskGroupFactory("group", TaskPriority::low, false, root);
    auto const task = taskFactory(group, TaskPriority::low, "counting");
    auto const work =
        onTaskRun(task, [&] { task->taskRun() < 3 ? task->scheduleTask() : root->evLoop()->stop(); });
    task->scheduleTask();
    root->evLoop()->run();
    Mox::String const runs = Mox::attributeText(*task, "taskRun");
    std::cout << "runs " << runs << '\n';
    return runs == "3" ? 0 : 1;
}
