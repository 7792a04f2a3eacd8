// How soon a descriptor is answered while tasks never end, and how soon a timer's task runs while descriptors
// never fall silent: on the library's own loop, inside an application's io_context, and, as the floor, by a
// bare io_context that does nothing but poll.
//
// A client thread on the other core asks at random moments and waits for the echo without sleeping. Requests
// during which either thread was taken off its core by somebody else's work are set aside: they measure the
// machine.

#include <bench/Rows.h>
#include <bench/TaskLoad.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using Bench::Options;
using boost::asio::io_context;

/// How often the thread was taken off its core.
long preemptions() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nivcsw;
}

/// What one side saw of a request.
struct Seen {
    double usec;
    bool disturbed;
};

/// Asks at random moments; the message is the time at which it was sent, 0 at the end.
class Client {
  public:
    Client(int descriptor, unsigned requests)
        : descriptor_(descriptor), thread_([this, requests] { ask(requests); }) {}
    ~Client() { close(descriptor_); }
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    /// Waits for the client's end; the round trips.
    std::vector<Seen> const& join() {
        thread_.join();
        return seen_;
    }

  private:
    void ask(unsigned requests) {
        Bench::pinToCore(1);
        std::mt19937 engine(1);
        std::uniform_int_distribution<std::int64_t> pause(20'000, 120'000);
        for (unsigned i = 0; i < requests; ++i) {
            for (std::int64_t const until = Bench::steadyNanoseconds() + pause(engine);
                 Bench::steadyNanoseconds() < until;) {
            }
            long const before = preemptions();
            std::int64_t const sent = Bench::steadyNanoseconds();
            send(sent);
            std::int64_t echo = 0;
            while (recv(descriptor_, &echo, sizeof echo, MSG_DONTWAIT) != sizeof echo) {
            }
            double const usec = static_cast<double>(Bench::steadyNanoseconds() - sent) / 1e3;
            seen_.push_back({usec, preemptions() != before});
        }
        send(0);
    }
    void send(std::int64_t message) {
        if (::send(descriptor_, &message, sizeof message, 0) != sizeof message)
            std::perror("send");
    }

    int const descriptor_;
    std::vector<Seen> seen_;
    std::thread thread_;
};

/// Answers on an io_context until the client is through, then calls `atEnd`.
class Server {
  public:
    Server(io_context& context, int descriptor, std::function<void()> atEnd)
        : socket_(context, boost::asio::local::stream_protocol(), descriptor), atEnd_(std::move(atEnd)) {
        receive();
    }
    /// From sending to being called.
    std::vector<Seen> seen;

  private:
    void receive() {
        socket_.async_read_some(boost::asio::buffer(&message_, sizeof message_),
                                [this](boost::system::error_code error, std::size_t) {
                                    if (error || message_ == 0)
                                        atEnd_();
                                    else
                                        answer();
                                });
    }
    void answer() {
        double const usec = static_cast<double>(Bench::steadyNanoseconds() - message_) / 1e3;
        boost::asio::write(socket_, boost::asio::buffer(&message_, sizeof message_));
        long const count = preemptions();
        seen.push_back({usec, count != std::exchange(preemptions_, count)});
        receive();
    }

    boost::asio::local::stream_protocol::socket socket_;
    std::function<void()> const atEnd_;
    std::int64_t message_ = 0;
    long preemptions_ = preemptions();
};

struct Latencies {
    std::vector<double> all;
    std::vector<double> undisturbed;
    std::vector<double> roundTrips; // undisturbed
};

/// `loop` turns until it is told to stop.
Latencies measure(unsigned requests, io_context& context, std::function<void()> const& loop,
                  std::function<void()> const& stop) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        std::exit(1);
    Server server(context, ends[0], stop);
    Client client(ends[1], requests);
    loop();
    std::vector<Seen> const& roundTrips = client.join();
    Latencies latencies;
    for (std::size_t i = 0; i < server.seen.size(); ++i) {
        latencies.all.push_back(server.seen[i].usec);
        if (server.seen[i].disturbed || roundTrips[i].disturbed)
            continue;
        latencies.undisturbed.push_back(server.seen[i].usec);
        latencies.roundTrips.push_back(roundTrips[i].usec);
    }
    return latencies;
}

constexpr unsigned tasks = 16;

Latencies onOwnLoop(unsigned requests) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Bench::TaskLoad const load(tasks, loop);
    return measure(
        requests, loop->ioContext(), [&] { loop->run(); }, [&] { loop->stop(); });
}

Latencies insideIoContext(unsigned requests) {
    io_context context;
    Bench::TaskLoad const load(tasks, Kel::EventLoop::EventLoopIs(context));
    return measure(
        requests, context, [&] { context.run(); }, [&] { context.stop(); });
}

Latencies onPollingContext(unsigned requests) {
    io_context context(1);
    bool stopped = false;
    return measure(
        requests, context,
        [&] {
            while (!stopped)
                context.poll();
        },
        [&] { stopped = true; });
}

/// Sockets that always have something to read: who reads it writes it back to the other end.
class Chatter {
  public:
    Chatter(io_context& context, unsigned sockets) {
        for (unsigned i = 0; i < sockets; ++i) {
            Socket& socket = sockets_.emplace_back(context);
            boost::asio::local::connect_pair(socket, ends_.emplace_back(context));
            boost::asio::write(ends_.back(), boost::asio::buffer(message_));
            echo(socket, ends_.back());
        }
    }

  private:
    using Socket = boost::asio::local::stream_protocol::socket;

    void echo(Socket& socket, Socket& end) {
        socket.async_read_some(boost::asio::buffer(message_),
                               [&](boost::system::error_code error, std::size_t size) {
                                   if (error)
                                       return;
                                   boost::asio::write(end, boost::asio::buffer(message_, size));
                                   echo(socket, end);
                               });
    }

    std::deque<Socket> sockets_, ends_;
    std::array<char, 64> message_{};
};

/// When the next timer is due, and how late what it asked for came.
class Lateness {
  public:
    explicit Lateness(unsigned samples) : samples_(samples) {}

    /// Seconds to the next one.
    double next() {
        double const seconds = pause_(engine_);
        due_ = Bench::steadyNanoseconds() + static_cast<std::int64_t>(seconds * 1e9);
        return seconds;
    }
    std::int64_t due() const { return due_; }
    /// False when it was the last.
    bool came() {
        double const usec = static_cast<double>(Bench::steadyNanoseconds() - due_) / 1e3;
        long const count = preemptions();
        if (count == std::exchange(preemptions_, count))
            undisturbed.push_back(usec);
        return --samples_ > 0;
    }
    std::vector<double> undisturbed;

  private:
    unsigned samples_;
    std::mt19937 engine_{1};
    std::uniform_real_distribution<double> pause_{20e-6, 120e-6};
    std::int64_t due_ = 0;
    long preemptions_ = preemptions();
};

/// A timer of the loop schedules a task, whose run arms the timer anew.
class TimedTask : public Kel::Task::Notifiee {
  public:
    TimedTask(Mox::Ptr<Kel::EventLoop> const& loop, Lateness& lateness, std::function<void()> atEnd)
        : root_(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("bench", loop)),
          task_(Kel::Task::TaskIs(root_, Kel::TaskPriority::normal, "timed")), lateness_(lateness),
          atEnd_(std::move(atEnd)), alarm_(new Alarm(loop, task_)) {
        notifierIs(task_);
        alarm_->arm(lateness_.next());
    }
    void onTaskRun() override {
        if (lateness_.came())
            alarm_->arm(lateness_.next());
        else
            atEnd_();
    }

  private:
    class Alarm : public Kel::TimerEvent::Notifiee {
      public:
        Alarm(Mox::Ptr<Kel::EventLoop> const& loop, Mox::Ptr<Kel::Task> task)
            : event_(Kel::TimerEvent::TimerEventIs(loop)), task_(std::move(task)) {
            notifierIs(event_);
        }
        void arm(double seconds) { event_->timeMinIs(seconds); }
        void onClock() override { task_->scheduleTask(); }

      private:
        Mox::Ptr<Kel::TimerEvent> const event_;
        Mox::Ptr<Kel::Task> const task_;
    };

    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root_;
    Mox::Ptr<Kel::Task> const task_;
    Lateness& lateness_;
    std::function<void()> const atEnd_;
    Mox::Ptr<Alarm> const alarm_;
};

void timedOnOwnLoop(Lateness& lateness, unsigned sockets) {
    auto const loop = Kel::EventLoop::EventLoopIs();
    Chatter const chatter(loop->ioContext(), sockets);
    Mox::Ptr<TimedTask> const task = new TimedTask(loop, lateness, [&] { loop->stop(); });
    loop->run();
}

void timedInsideIoContext(Lateness& lateness, unsigned sockets) {
    io_context context;
    Chatter const chatter(context, sockets);
    Mox::Ptr<TimedTask> task =
        new TimedTask(Kel::EventLoop::EventLoopIs(context), lateness, [&] { context.stop(); });
    context.run();
}

void timedOnPollingContext(Lateness& lateness, unsigned sockets) {
    io_context context(1);
    Chatter const chatter(context, sockets);
    for (lateness.next();; context.poll_one())
        if (Bench::steadyNanoseconds() >= lateness.due()) {
            if (!lateness.came())
                return;
            lateness.next();
        }
}

void timedRows(unsigned samples, unsigned sockets) {
    auto const measured = [&](auto run) {
        Lateness lateness(samples);
        run(lateness, sockets);
        return std::move(lateness.undisturbed);
    };
    auto const floor = measured(timedOnPollingContext);
    auto const row = [&](std::string const& name, std::vector<double> const& ours) {
        for (auto const& [what, q] : {std::pair(", us, p50", 0.5), {", us, p99", 0.99}, {", us, max", 1.0}})
            Bench::figure(name + what, sockets, Bench::quantile(ours, q), Bench::quantile(floor, q));
    };
    row("timed task under chatter, own loop", measured(timedOnOwnLoop));
    row("timed task under chatter, inside an io_context", measured(timedInsideIoContext));
}

void rows(std::string const& name, Latencies const& ours, Latencies const& floor) {
    auto const row = [&](char const* what, double q, auto const& part) {
        Bench::figure(name + what, tasks, Bench::quantile(ours.*part, q), Bench::quantile(floor.*part, q));
    };
    row(", us, p50", 0.5, &Latencies::undisturbed);
    row(", us, p99", 0.99, &Latencies::undisturbed);
    row(", us, max", 1.0, &Latencies::undisturbed);
    row(", us, p99 with disturbed", 0.99, &Latencies::all);
    row(", round trip, us, p99", 0.99, &Latencies::roundTrips);
    auto const disturbed = [](Latencies const& of) {
        return 100.0 -
               100.0 * static_cast<double>(of.undisturbed.size()) / static_cast<double>(of.all.size());
    };
    Bench::figure(name + ", % disturbed", tasks, disturbed(ours), disturbed(floor));
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    unsigned const requests = options.quick ? 4'000 : 20'000;
    Latencies const floor = onPollingContext(requests);
    rows("I/O answered, own loop", onOwnLoop(requests), floor);
    rows("I/O answered, inside an io_context", insideIoContext(requests), floor);
    for (unsigned const sockets : {1u, 10u, 1000u})
        timedRows(requests, sockets);
}
