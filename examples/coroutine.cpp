// Coroutines as the work of tasks: one works in slices at low priority, one wakes every 5 ms at high
// priority, on one thread. Each is measured as its task.

#include <adapt/TaskHandlers.h>
#include <adapt/YieldIfNeeded.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <iostream>

using boost::asio::awaitable;
using Mox::Ptr;

bool isPrime(int number) {
    int divisor = 2;
    while (number % divisor != 0)
        ++divisor;
    return divisor == number;
}

awaitable<int> countPrimes(Ptr<Kel::Task> task, int limit) {
    int primes = 0;
    for (int number = 2; number < limit; ++number) {
        primes += isPrime(number);
        co_await Kel::yieldIfNeeded(task);
    }
    co_return primes;
}

awaitable<void> wakeEvery(std::chrono::milliseconds period) {
    boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor,
                                    std::chrono::steady_clock::now());
    for (;;) {
        timer.expires_at(timer.expiry() + period);
        co_await timer.async_wait(boost::asio::use_awaitable);
    }
}

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    auto const root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    auto const handlersOf = [&](Kel::TaskPriority priority, Mox::String8 const& name) {
        auto const task = Kel::Task::TaskIs(root, priority, name);
        task->taskQuantumIs(0.002);
        return Kel::TaskHandlers::TaskHandlersIs(task, loop);
    };
    auto const counting = handlersOf(Kel::TaskPriority::low, "counting");
    auto const waking = handlersOf(Kel::TaskPriority::high, "waking");

    int primes = 0;
    co_spawn(waking->executor(), wakeEvery(std::chrono::milliseconds(5)), boost::asio::detached);
    co_spawn(counting->executor(), countPrimes(counting->task(), 20'000),
             [&](std::exception_ptr, int counted) {
                 primes = counted;
                 loop->stop();
             });
    loop->run();

    std::cout << primes << " primes in " << counting->task()->taskRun() << " runs; woken in "
              << waking->task()->taskRun() << " runs meanwhile\n";
    return primes == 2262 && counting->task()->taskRun() > 1 && waking->task()->taskRun() > 1 ? 0 : 1;
}
