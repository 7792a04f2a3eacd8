// A program of somebody who has the library: what it takes from each of the three libraries has to be there
// when it is compiled, linked and run, the types known by name too, which nothing but their names asks for.
#include <group/TaskGroup.h>
#include <mox/TypeRegistry.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <cstdlib>
#include <iostream>

namespace {

struct Countdown : Kel::Task::Notifiee {
    int left = 3;
    Mox::Ptr<Kel::EventLoop> loop = Kel::EventLoop::EventLoopIs();

    void onTaskRun() override {
        if (--left > 0)
            notifier()->scheduleTask();
        else
            loop->stop();
    }
};

} // namespace

int main() {
    Mox::Ptr<Countdown> const countdown = new Countdown;
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", countdown->loop);
    auto const group = Kel::TaskGroup::TaskGroupIs("group", Kel::TaskPriority::low, false, root);
    auto const task = Kel::Task::TaskIs(group, Kel::TaskPriority::low, "countdown");
    countdown->notifierIs(task);
    task->scheduleTask();
    countdown->loop->run();

    Mox::String const runs = Mox::attributeText(*task, "taskRun");
    std::cout << "left " << countdown->left << ", runs " << runs << '\n';
    return countdown->left == 0 && runs == "3" ? EXIT_SUCCESS : EXIT_FAILURE;
}
