// A long piece of work in slices, and what happens to one that is not cut.

#include <adapt/Callbacks.h>
#include <mox/SteadyClock.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <iostream>

namespace {

constexpr Mox::U64 items = 1'000'000;

void workFor(Mox::Nanoseconds time) {
    auto const start = Mox::SteadyClock::now();
    while (Mox::SteadyClock::now() - start < time) {
    }
}

} // namespace

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);

    auto const sliced = Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "sliced");
    sliced->taskQuantumIs(0.001);
    auto const slices = Kel::onTaskRun(sliced, [&] {
        while (sliced->taskWorkCount() < items) {
            sliced->taskWorkCountInc(1);
            if (sliced->taskShouldYield())
                return sliced->scheduleTask();
        }
        loop->stop();
    });

    auto const whole = Kel::Task::TaskIs(root, Kel::TaskPriority::normal, "whole");
    whole->taskQuantumIs(0.001);
    auto const noSlices = Kel::onTaskRun(whole, [] { workFor(Mox::toNanoseconds(0.006)); });

    sliced->scheduleTask();
    whole->scheduleTask();
    loop->run();
    root->printStats(Kel::StreamDumpContext::StreamDumpContextIs(std::cout));

    bool const asExpected = sliced->taskWorkCount() == items && sliced->taskRun() > 1 &&
                            whole->taskRun() == 1 && whole->taskQuantumViolation500() == 1;
    return asExpected ? 0 : 1;
}
