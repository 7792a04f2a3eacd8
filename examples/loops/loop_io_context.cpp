// The library on the io_context of an application: attached to it, the loop needs no help.

#include "Work.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <iostream>

int main() {
    boost::asio::io_context application;
    Work const work(Kel::EventLoop::EventLoopIs(application));

    int events = 0;
    boost::asio::steady_timer timer(application);
    std::function<void()> const next = [&] {
        timer.expires_after(std::chrono::milliseconds(10));
        timer.async_wait([&](auto) {
            if (++events >= 5 && work.done())
                application.stop(); // a scheduler always has something pending
            else
                next();
        });
    };
    next();
    application.run();
    std::cout << events << " events of the application\n";
    return work.done() ? 0 : 1;
}
