// Ending: stop the loop, do what is left or drop it, release the tasks, release the root.

#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);

    int saved = 0;
    auto saving = Kel::Task::TaskIs(root, Kel::TaskPriority::low, "saving");
    auto savingWork = Kel::onTaskRun(saving, [&] {
        if (++saved < 3)
            saving->scheduleTask();
    });
    auto polling = Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "polling");
    auto pollingWork = Kel::onTaskRun(polling, [&] {
        polling->scheduleTask(); // for ever
        if (polling->taskRun() == 2)
            loop->stop();
    });
    polling->scheduleTask();
    saving->scheduleTask();

    // stop() ends run() behind the present callback. Nothing else has changed: both tasks are still
    // scheduled.
    loop->run();
    bool const bothLeft = saved == 0 && polling->taskBusy() && saving->taskBusy();

    // Drop: with its last owner the task goes, off its queue too. Its reactor is an owner.
    pollingWork = nullptr;
    polling = nullptr;
    bool const filed = root->deadTaskStats("polling")->taskRun() == 2;

    // Do what is left. A loop with a root on it is never out of things to do; ask the scheduler.
    while (root->schedulerHasRunnableTasks())
        loop->runOnce();

    // A task holds its scheduler: the root goes with the last of them.
    auto const lastRoot = std::exchange(root, nullptr).ptr();
    bool const rootIsHeld = saving->taskScheduler().ptr() == lastRoot;
    savingWork = nullptr;
    saving = nullptr;

    std::cout << saved << " saved\n";
    return bothLeft && filed && saved == 3 && rootIsHeld ? 0 : 1;
}
