#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

struct Primes : Kel::Task::Notifiee { // counts primes in slices, each as long as the task's quantum allows
    int next = 2;
    Mox::Ptr<Kel::EventLoop> loop = Kel::EventLoop::EventLoopIs();

    void onTaskRun() override {
        for (; next < 20'000 && !notifier()->taskShouldYield(); ++next) {
            int divisor = 2;
            while (next % divisor != 0)
                ++divisor;
            notifier()->taskWorkCountInc(divisor == next ? 1 : 0);
        }
        next < 20'000 ? notifier()->scheduleTask() : loop->stop();
    }
};

int main() {
    Mox::Ptr<Primes> const primes = new Primes;
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", primes->loop);
    primes->notifierIs(Kel::Task::TaskIs(root, Kel::TaskPriority::low, "primes"));
    primes->notifier()->scheduleTask();
    primes->loop->run();
    root->printStats(Kel::StreamDumpContext::StreamDumpContextIs(std::cout), 0, true, true, false, false);
}
