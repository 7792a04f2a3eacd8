// The library under a loop of the application's own, over epoll: wait for as long as nextDue() says, or for
// the application's descriptors, then let the library have one turn.

#include "Work.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <stdexcept>

/// The application's events: a descriptor that becomes readable every 10 ms.
class Ticks {
  public:
    Ticks() : descriptor_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK)) {
        itimerspec const every10Msec{{0, 10'000'000}, {0, 10'000'000}};
        if (descriptor_ < 0 || timerfd_settime(descriptor_, 0, &every10Msec, nullptr) != 0)
            throw std::runtime_error("no timer descriptor");
    }
    ~Ticks() { close(descriptor_); }
    Ticks(Ticks const&) = delete;
    Ticks& operator=(Ticks const&) = delete;

    int descriptor() const { return descriptor_; }
    bool take() {
        Mox::U64 expiries = 0;
        return read(descriptor_, &expiries, sizeof expiries) == sizeof expiries;
    }

  private:
    int const descriptor_;
};

/// Rounded up, so that the loop does not spin through the last part of a millisecond; -1 waits for ever.
int milliseconds(Mox::Seconds wait) {
    return wait == Mox::endOfTime ? -1 : static_cast<int>(std::ceil(std::min(wait, 1000.0) * 1000));
}

int main() {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Work const work(loop);

    Ticks ticks;
    int const epoll = epoll_create1(0);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    if (epoll < 0 || epoll_ctl(epoll, EPOLL_CTL_ADD, ticks.descriptor(), &wanted) != 0)
        return 1;

    int events = 0;
    while (events < 5 || !work.done()) {
        epoll_event ready{};
        if (epoll_wait(epoll, &ready, 1, milliseconds(loop->nextDue())) > 0)
            events += ticks.take();
        loop->runOnce();
    }
    close(epoll);
    std::cout << events << " events of the application\n";
}
