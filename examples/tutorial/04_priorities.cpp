// Who runs first, and how a streak of one priority gives way to a lower one.

#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <algorithm>
#include <iostream>
#include <vector>

namespace {

/// Tasks that write the letter of their priority when they run.
struct Letters {
    void add(Kel::TaskPriority priority, int runs) {
        auto const task = Kel::Task::TaskIs(root, priority, priority.toStrep());
        work.push_back(Kel::onTaskRun(task, [this, task, priority, runs] {
            text += priority.oneCharString();
            if (task->taskRun() < static_cast<Mox::U32>(runs))
                task->scheduleTask();
        }));
        task->scheduleTask();
    }
    std::string run() {
        while (root->schedulerHasRunnableTasks())
            loop->runOnce();
        work.clear();
        return std::exchange(text, "");
    }

    Mox::Ptr<Kel::EventLoop> const loop = Kel::EventLoop::EventLoopIs();
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root =
        Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    std::vector<Kel::CallbackOn<Kel::Task>> work;
    std::string text;
};

} // namespace

int main() {
    Letters letters;
    for (auto const priority :
         {Kel::TaskPriority::scavenge, Kel::TaskPriority::low, Kel::TaskPriority::normal,
          Kel::TaskPriority::high, Kel::TaskPriority::absolute})
        letters.add(priority, 1);
    std::string const once = letters.run();

    letters.add(Kel::TaskPriority::high, 20);
    letters.add(Kel::TaskPriority::normal, 4);
    std::string const streaks = letters.run();

    std::cout << once << "\n" << streaks << "\n";
    return once == "AHNLS" && streaks == "HHHHHHHHHNHHHHHHHHHNHHNN" ? 0 : 1;
}
