#include "Peer.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <deque>
#include <optional>
#include <queue>

namespace Bench {
namespace {

using boost::asio::io_context;

struct PostedItem : Measured {
    bool high = false;
};

/// Handlers of any type, by priority: what runs next is on top of a heap.
class HandlerHeap {
  public:
    template <class Handler> void add(bool high, Handler handler) {
        heap_.push({high ? 1 : 0, std::move(handler)});
    }
    void runAll() {
        while (!heap_.empty()) {
            auto const next = heap_.top().run;
            heap_.pop();
            next();
        }
    }

  private:
    struct Queued {
        int priority;
        std::function<void()> run;
        bool operator<(Queued const& other) const { return priority < other.priority; }
    };
    std::priority_queue<Queued> heap_;
};

/// The same for handlers of one type, in the order in which they came: a queue for each priority.
class HandlerQueues {
  public:
    template <class Handler> void add(bool high, Handler handler) {
        static_assert(sizeof handler == sizeof(Slot));
        queues_[high ? 0 : 1].push_back({&call<Handler>, std::bit_cast<Slot>(handler)});
    }
    void runAll() {
        for (auto& queue : queues_) {
            for (; !queue.empty(); queue.pop_front())
                queue.front().run(queue.front().handler);
        }
    }

  private:
    using Slot = std::array<void*, 2>;
    struct Queued {
        void (*run)(Slot const&);
        Slot handler;
    };
    template <class Handler> static void call(Slot const& handler) { std::bit_cast<Handler>(handler)(); }
    std::array<std::deque<Queued>, 2> queues_;
};

/// Items that post themselves. The io_context's handlers put them into the queue by priority, which is run
/// when all that were posted have done so.
template <class Queue> class PostedItems final : public PeerItems<PostedItem> {
  public:
    explicit PostedItems(std::uint64_t n) {
        fill(
            n,
            [](bool high) {
                auto item = std::make_unique<PostedItem>();
                item->high = high;
                return item;
            },
            [this](PostedItem& item) { post(item); });
    }

  private:
    struct Run {
        void operator()() const {
            all->ran(*item, [this] { all->post(*item); });
        }
        PostedItems* all;
        PostedItem* item;
    };
    void post(PostedItem& item) {
        boost::asio::post(context_, [run = Run{this, &item}] { run.all->queue_.add(run.item->high, run); });
    }
    void turn() override {
        while (!done()) {
            context_.poll();
            queue_.runAll();
        }
    }

    Queue queue_;
    io_context context_{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE};
    boost::asio::executor_work_guard<io_context::executor_type> work_{context_.get_executor()};
};

class AsioTimers {
  public:
    static constexpr bool rounded = true;
    explicit AsioTimers(std::uint64_t n) {
        timers_.reserve(n);
        for (std::uint64_t i = 0; i < n; ++i)
            timers_.emplace_back(context_);
    }

    /// The handlers of cancelled waits belong to what a move costs.
    template <class Work> void inside(Work&& work) {
        work();
        context_.restart();
        context_.poll();
    }
    void arm(std::uint32_t i, double time) {
        timers_[i].expires_at(timePoint(time));
        timers_[i].async_wait([this](boost::system::error_code error) {
            if (!error)
                expiries.onTime(0);
        });
    }
    void runUntil(double time) {
        boost::asio::steady_timer end(context_, timePoint(time));
        end.async_wait([this](boost::system::error_code) { context_.stop(); });
        context_.restart();
        context_.run();
    }

    Expiries expiries;

  private:
    static std::chrono::steady_clock::time_point timePoint(double time) {
        return std::chrono::steady_clock::time_point(
            std::chrono::nanoseconds(static_cast<std::int64_t>(time * 1e9)));
    }

    io_context context_{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE};
    std::vector<boost::asio::steady_timer> timers_;
};

} // namespace

Peer asio() {
    return peer<AsioTimers>("Asio", {variant<PostedItems<HandlerHeap>>("posted, heap of handlers", true),
                                     variant<PostedItems<HandlerQueues>>("posted, queue a priority", true)});
}

} // namespace Bench
