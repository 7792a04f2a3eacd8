// Work after a delay, and work once a period.

#include <adapt/Callbacks.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <task/PeriodicTask.h>

#include <iostream>

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    Mox::Seconds const start = Mox::now();

    Mox::U64 ticks = 0;
    auto const ticking =
        Kel::PeriodicTask::PeriodicTaskIs(root, Kel::TaskPriority::high, "ticking", 0.02, [&] { ++ticks; });
    ticking->start();

    auto const late = Kel::TimerTask::TimerTaskIs(root, Kel::TaskPriority::normal, "late");
    auto const atEnd = Kel::onTaskRun(late, [&] {
        ticking->stop();
        loop->stop();
    });
    late->scheduleTaskDelay(60.0);
    late->scheduleTaskLowestDelay(0.11); // earlier: it counts
    late->scheduleTaskLowestDelay(30.0); // later: it does not

    loop->run();

    Mox::Seconds const lasted = Mox::now() - start;
    std::cout << ticks << " ticks and " << ticking->missed() << " missed in " << lasted << " s\n";
    return lasted >= 0.11 && lasted < 30.0 && ticks + ticking->missed() >= 5 && !ticking->started() ? 0 : 1;
}
