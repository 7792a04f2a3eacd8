// kelkv, a key-value daemon: see README.md.

#include "Daemon.h"

#include <boost/asio/signal_set.hpp>

#include <charconv>
#include <csignal>
#include <cstring>
#include <iostream>
#include <optional>

namespace {

struct Options {
    unsigned short port = 7379;
    unsigned short operatorPort = 7380;
};

std::optional<Options> readOptions(std::span<char*> words) {
    Options options;
    for (; words.size() >= 2; words = words.subspan(2)) {
        std::string_view const name = words[0];
        unsigned short* const number = name == "--port"            ? &options.port
                                       : name == "--operator-port" ? &options.operatorPort
                                                                   : nullptr;
        char const* const end = words[1] + std::strlen(words[1]);
        if (!number || std::from_chars(words[1], end, *number).ptr != end)
            return std::nullopt;
    }
    return words.empty() ? std::optional(options) : std::nullopt;
}

/// SIGUSR1 prints what the scheduler measured, SIGINT and SIGTERM end the daemon.
class Signals {
  public:
    explicit Signals(KelKv::Daemon& daemon)
        : daemon_(daemon), signals_(daemon.loop()->ioContext(), SIGUSR1, SIGINT, SIGTERM) {
        wait();
    }

  private:
    void wait() {
        signals_.async_wait([this](boost::system::error_code error, int signal) {
            if (error)
                return;
            if (signal != SIGUSR1)
                return daemon_.loop()->stop();
            std::cerr << daemon_.statistics() << daemon_.history() << std::flush;
            wait();
        });
    }

    KelKv::Daemon& daemon_;
    boost::asio::signal_set signals_;
};

void serve(Options const& options) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    {
        KelKv::Daemon daemon(loop, options.port, options.operatorPort);
        Signals const signals(daemon);
        std::cout << "kelkv: port " << daemon.clients().number() << ", operator's port "
                  << daemon.operators().number() << std::endl;
        loop->run();
    }
    loop->runOnce(); // what the closed sockets still had under way
}

} // namespace

int main(int argc, char** argv) {
    auto const options = readOptions({argv + 1, argv + argc});
    if (!options) {
        std::cerr << "usage: kelkv [--port N] [--operator-port N]     (0: a free port)\n";
        return 2;
    }
    try {
        serve(*options);
    } catch (std::exception const& e) {
        std::cerr << "kelkv: " << e.what() << "\n";
        return 1;
    }
}
