// kelkv, a key-value daemon: see README.md.

#include "HeapTrim.h"
#include "Options.h"

#include <mox/SteadyClock.h>

#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>

#include <csignal>
#include <cstdlib>
#include <iostream>

namespace {

/// SIGUSR1 prints what the scheduler measured, in slices, also while that is suspended; SIGINT and SIGTERM
/// end the daemon.
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
            if (!report_)
                printReport();
            wait();
        });
    }

    void printReport() {
        auto report = std::make_unique<KelKv::TextSequence>();
        report->add(engine_.statistics());
        report->add(engine_.history());
        report_ = std::move(report);
        printSome();
    }

    /// A report that fails ends, and the daemon does not.
    void printSome() {
        std::string part;
        bool isMore = false;
        try {
            isMore = report_->next(part);
        } catch (std::exception const& e) {
            part = e.what();
        }
        std::cerr << part << std::flush;
        if (isMore)
            boost::asio::post(loop_.ioContext(), [this] { printSome(); });
        else
            report_ = nullptr;
    }

    Kel::EventLoop& loop_;
    KelKv::Engine const& engine_;
    boost::asio::signal_set signals_;
    KelKv::SlicedTextPtr report_; // being printed
};

/// The end is the process's: to free a million keys one by one would take seconds, and the system closes the
/// ports.
[[noreturn]] void serve(KelKv::Daemon::Options const& options) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    KelKv::Daemon daemon(loop, options);
    Signals const signals(*loop, daemon.engine());
    KelKv::HeapTrim const heapTrim(daemon.engine());
    std::cout << "kelkv: port " << daemon.clients().number() << ", operator's port "
              << daemon.operators().number() << std::endl;
    if (daemon.http())
        std::cout << "kelkv: http://" << daemon.http()->endpoint() << "/" << std::endl;
    loop->run();
    std::quick_exit(EXIT_SUCCESS);
}

void run(std::span<char const* const> words) {
    auto asked = KelKv::readOptions(words);
    if (auto const* const text = std::get_if<std::string>(&asked)) {
        std::cout << *text << std::flush;
        return;
    }
    auto& options = std::get<KelKv::Daemon::Options>(asked);
    if (std::string const warning = KelKv::fitDescriptors(options); !warning.empty())
        std::cerr << "kelkv: " << warning << std::endl;
    if (options.fastClock)
        if (Mox::Problem const problem = Mox::SteadyClock::sourceIs(Mox::SteadyClock::Source::counter);
            !problem.empty())
            std::cerr << "kelkv: --fast-clock is of no effect: " << problem << std::endl;
    std::signal(SIGPIPE, SIG_IGN); // whoever read our lines may have gone
    serve(options);
}

} // namespace

int main(int argc, char** argv) {
    try {
        run({argv + 1, argv + argc});
    } catch (KelKv::OptionError const& e) {
        std::cerr << "kelkv: " << e.what() << "\n(kelkv --help tells the options)\n";
        return 2;
    } catch (std::exception const& e) {
        std::cerr << "kelkv: " << e.what() << "\n";
        return 1;
    }
}
