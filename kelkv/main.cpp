// kelkv, a key-value daemon: see README.md.

#include "Daemon.h"
#include "Number.h"

#include <boost/asio/signal_set.hpp>

#include <csignal>
#include <iostream>
#include <optional>

namespace {

struct Options {
    unsigned short port = 7379;
    unsigned short operatorPort = 7380;
    std::optional<unsigned short> httpPort;              // none: no such port
    std::optional<boost::asio::ip::address> httpAddress; // none: loopback
};

bool readOption(Options& options, std::string_view name, char const* text) {
    if (name == "--port")
        return KelKv::readNumber(text, options.port);
    if (name == "--operator-port")
        return KelKv::readNumber(text, options.operatorPort);
    if (name == "--http-port")
        return KelKv::readNumber(text, options.httpPort.emplace());
    if (name != "--http-address")
        return false;
    boost::system::error_code error;
    options.httpAddress = boost::asio::ip::make_address(text, error);
    return !error;
}

std::optional<Options> readOptions(std::span<char*> words) {
    Options options;
    for (; words.size() >= 2; words = words.subspan(2))
        if (!readOption(options, words[0], words[1]))
            return std::nullopt;
    bool const isWhole = words.empty() && (options.httpPort || !options.httpAddress);
    return isWhole ? std::optional(options) : std::nullopt;
}

/// SIGUSR1 prints what the scheduler measured, SIGINT and SIGTERM end the daemon.
class Signals {
  public:
    Signals(Kel::EventLoop& loop, KelKv::Engine const& engine)
        : loop_(loop), engine_(engine), signals_(loop.ioContext(), SIGUSR1, SIGINT, SIGTERM) {
        wait();
    }

  private:
    void wait() {
        signals_.async_wait([this](boost::system::error_code error, int signal) {
            if (error)
                return;
            if (signal != SIGUSR1)
                return loop_.stop();
            std::cerr << engine_.statistics() << engine_.history() << std::flush;
            wait();
        });
    }

    Kel::EventLoop& loop_;
    KelKv::Engine const& engine_;
    boost::asio::signal_set signals_;
};

void serve(Options const& options) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    {
        std::optional<boost::asio::ip::tcp::endpoint> http;
        if (options.httpPort)
            http.emplace(options.httpAddress.value_or(boost::asio::ip::address_v4::loopback()),
                         *options.httpPort);
        KelKv::Daemon daemon(loop, options.port, options.operatorPort, http);
        Signals const signals(*loop, daemon.engine());
        std::cout << "kelkv: port " << daemon.clients().number() << ", operator's port "
                  << daemon.operators().number() << std::endl;
        if (daemon.http())
            std::cout << "kelkv: http://" << daemon.http()->endpoint() << "/" << std::endl;
        loop->run();
    }
    loop->runOnce(); // what the closed sockets still had under way
}

} // namespace

int main(int argc, char** argv) {
    auto const options = readOptions({argv + 1, argv + argc});
    if (!options) {
        std::cerr << "usage: kelkv [--port N] [--operator-port N] [--http-port N [--http-address ADDRESS]]\n"
                     "       (port 0: a free one; HTTP listens on loopback unless an address is given)\n";
        return 2;
    }
    try {
        serve(*options);
    } catch (std::exception const& e) {
        std::cerr << "kelkv: " << e.what() << "\n";
        return 1;
    }
}
