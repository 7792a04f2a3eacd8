#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

struct Primes : Kel::Task::Notifiee { // works in slices, as long as its quantum allows
    int next = 2;
    void onTaskRun() override {
        for (; next < 20'000 && !notifier()->taskShouldYield(); ++next)
            if (isPrime(next))
                notifier()->taskWorkCountInc(1);
        if (next < 20'000)
            notifier()->scheduleTask();
    }
    static bool isPrime(int n) {
        int divisor = 2;
        while (n % divisor != 0)
            ++divisor;
        return divisor == n;
    }
};

struct Stop : Kel::TimerTask::Notifiee {
    Mox::Ptr<Kel::EventLoop> loop;
    void onTaskRun() override { loop->stop(); }
};

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    Mox::Ptr<Primes> const primes = new Primes;
    primes->notifierIs(Kel::Task::TaskIs(root, Kel::TaskPriority::low, "primes"));
    primes->notifier()->scheduleTask();
    Mox::Ptr<Stop> const stop = new Stop;
    stop->loop = loop;
    stop->notifierIs(Kel::TimerTask::TimerTaskIs(root, Kel::TaskPriority::high, "stop"));
    stop->notifier()->scheduleTaskDelay(0.5);
    loop->run();
    root->printStats(Kel::StreamDumpContext::StreamDumpContextIs(std::cout), 0, true, true, false, false);
}
