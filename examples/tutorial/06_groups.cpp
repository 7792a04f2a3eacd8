// Ten tasks that are one task to the others.

#include <adapt/Callbacks.h>
#include <group/TaskGroup.h>
#include <mox/SteadyClock.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>
#include <vector>

namespace {

void workFor(Mox::Nanoseconds time) {
    auto const start = Mox::SteadyClock::now();
    while (Mox::SteadyClock::now() - start < time) {
    }
}

/// A task that has always work left.
Kel::CallbackOn<Kel::Task> endless(Mox::Ptr<Kel::Task> const& task) {
    task->scheduleTask();
    return Kel::onTaskRun(task, [task = task.ptr()] {
        workFor(Mox::toNanoseconds(0.0002));
        task->scheduleTask();
    });
}

} // namespace

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    auto const group = Kel::TaskGroup::TaskGroupIs("imports", Kel::TaskPriority::normal, false, root);
    group->taskGroupQuantumIs(0.001);

    std::vector<Kel::CallbackOn<Kel::Task>> work;
    for (int i = 0; i < 10; ++i)
        work.push_back(endless(Kel::Task::TaskIs(group, Kel::TaskPriority::low, "import")));
    auto const neighbour = Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "neighbour");
    work.push_back(endless(neighbour));

    while (neighbour->taskRun() < 20)
        loop->runOnce();

    auto const groupRuns = group->parentTask()->notifier()->taskRun();
    auto const runsInGroup = group->runTaskCount(Kel::TaskPriority::low);
    std::cout << neighbour->taskRun() << " runs of the neighbour, " << groupRuns << " of the group, with "
              << runsInGroup << " runs in it\n";
    // The group and its neighbour take turns.
    return groupRuns >= 19 && groupRuns <= 21 && runsInGroup >= groupRuns ? 0 : 1;
}
