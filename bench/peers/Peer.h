#pragma once

#include <bench/Floor.h>
#include <bench/Timers.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Bench {

/// Items that queue themselves again in every run, each of one of two priorities.
class Items {
  public:
    virtual ~Items() = default;
    /// At least so many runs; how many there were. A loop may not end amid a batch.
    virtual std::uint64_t run(std::uint64_t runs) = 0;
};

/// Items on a peer's loop. The peer's callback calls `ran` with what queues the item again, and thus does the
/// floor's bookkeeping around it: the peer's part is the queue, the loop, and the call.
template <class Item> class PeerItems : public Items {
  public:
    std::uint64_t run(std::uint64_t runs) final {
        left_ = static_cast<std::int64_t>(runs);
        turn();
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(runs) - left_);
    }

    template <class Requeue> void ran(Item& item, Requeue&& requeue) {
        bookkeeping_.begun(item);
        bookkeeping_.queued(item);
        requeue();
        bookkeeping_.ended(item);
        if (--left_ == 0)
            stop();
    }

  protected:
    /// Makes n items, and starts them in random order.
    template <class Make, class Start> void fill(std::uint64_t n, Make&& make, Start&& start) {
        for (std::uint64_t i = 0; i < n; ++i)
            items_.push_back(make(i % 2 == 0));
        for (std::uint32_t const i : shuffled(n))
            start(*items_[i]);
    }
    auto const& items() const { return items_; }
    bool done() const { return left_ <= 0; }

    /// Runs the loop until `stop`.
    virtual void turn() = 0;
    virtual void stop() {}

  private:
    std::vector<std::unique_ptr<Item>> items_;
    std::int64_t left_ = 0;
    Bookkeeping<Item> bookkeeping_;
};

/// Timers with the operations of those of Timers.h.
class PeerTimers {
  public:
    virtual ~PeerTimers() = default;
    virtual double move(std::vector<std::uint32_t> const& order) = 0;
    virtual double fireAll() = 0;
};

template <class Timers> class PeerTimersOf : public PeerTimers {
  public:
    explicit PeerTimersOf(std::uint64_t n) : timers_(n) {}
    double move(std::vector<std::uint32_t> const& order) override { return moveAll(timers_, order); }
    double fireAll() override { return fire(timers_); }

  private:
    Timers timers_;
};

/// A way to queue items.
struct Variant {
    std::string name;
    std::function<std::unique_ptr<Items>(std::uint64_t n)> make;
    bool requeued = true; // by itself in each run, or left queued, and the loop runs it again
};
template <class ItemsOf, class... Arguments>
Variant variant(std::string name, bool requeued, Arguments... arguments) {
    return {std::move(name), [=](std::uint64_t n) { return std::make_unique<ItemsOf>(n, arguments...); },
            requeued};
}

struct Peer {
    std::string name;
    std::vector<Variant> variants;
    std::function<std::unique_ptr<PeerTimers>(std::uint64_t n)> timers;
};
template <class Timers> Peer peer(std::string name, std::vector<Variant> variants) {
    return {std::move(name), std::move(variants),
            [](std::uint64_t n) { return std::make_unique<PeerTimersOf<Timers>>(n); }};
}

Peer libev();
Peer libevent();
Peer libuv();
Peer glib();
Peer asio();

} // namespace Bench
