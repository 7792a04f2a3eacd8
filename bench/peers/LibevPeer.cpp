#include "Peer.h"

#pragma GCC diagnostic ignored "-Wold-style-cast" // the macros of its header
#pragma GCC diagnostic ignored "-Wstrict-aliasing"
#include <ev.h>

namespace Bench {
namespace {

/// A loop that never blocks: behind all that has work there is an idle watcher without any.
class BusyLoop {
  public:
    BusyLoop() {
        ev_idle_init(&busy_, [](struct ev_loop*, ev_idle*, int) {});
        ev_set_priority(&busy_, EV_MINPRI);
        ev_idle_start(loop, &busy_);
    }
    ~BusyLoop() { ev_loop_destroy(loop); }
    BusyLoop(BusyLoop const&) = delete;
    BusyLoop& operator=(BusyLoop const&) = delete;

    struct ev_loop* const loop = ev_loop_new(EVFLAG_AUTO);

  private:
    ev_idle busy_{};
};

void start(struct ev_loop* loop, ev_idle* watcher) { ev_idle_start(loop, watcher); }
void start(struct ev_loop* loop, ev_prepare* watcher) { ev_prepare_start(loop, watcher); }
void stop(struct ev_loop* loop, ev_idle* watcher) { ev_idle_stop(loop, watcher); }
void stop(struct ev_loop* loop, ev_prepare* watcher) { ev_prepare_stop(loop, watcher); }

template <class Watcher> struct WatcherItem : Measured, Watcher {};

/// Watchers that are stopped and started in each run, or left active.
template <class Watcher> class WatcherItems final : public PeerItems<WatcherItem<Watcher>> {
  public:
    WatcherItems(std::uint64_t n, bool restarted) : restarted_(restarted) {
        this->fill(
            n, [this](bool high) { return make(high); }, [this](Item& item) { start(busy_.loop, &item); });
    }

  private:
    using Item = WatcherItem<Watcher>;

    std::unique_ptr<Item> make(bool high) {
        auto item = std::make_unique<Item>();
        Watcher* const watcher = item.get();
        ev_init(watcher, [](struct ev_loop*, Watcher* called, int) {
            static_cast<WatcherItems*>(called->data)->onRun(*static_cast<Item*>(called));
        });
        ev_set_priority(watcher, high ? 1 : 0);
        watcher->data = this;
        return item;
    }
    void onRun(Item& item) {
        this->ran(item, [&] {
            if (!restarted_)
                return;
            Bench::stop(busy_.loop, &item);
            start(busy_.loop, &item);
        });
    }
    void turn() override { ev_run(busy_.loop, 0); }
    void stop() override { ev_break(busy_.loop, EVBREAK_ALL); }

    bool const restarted_;
    BusyLoop busy_;
};

/// Items that note in their run that they want another; before each turn's poll all of these are fed to the
/// loop. Fed in their run they would run again at once, and nothing else would.
class FedItems final : public PeerItems<WatcherItem<ev_timer>> {
  public:
    explicit FedItems(std::uint64_t n) {
        ev_prepare_init(&prepare_, [](struct ev_loop*, ev_prepare* called, int) {
            static_cast<FedItems*>(called->data)->feed();
        });
        prepare_.data = this;
        ev_prepare_start(busy_.loop, &prepare_);
        fill(
            n, [this](bool high) { return make(high); }, [this](Item& item) { wanted_.push_back(&item); });
    }

  private:
    using Item = WatcherItem<ev_timer>; // any watcher would do

    std::unique_ptr<Item> make(bool high) {
        auto item = std::make_unique<Item>();
        ev_timer* const watcher = item.get();
        ev_init(watcher, [](struct ev_loop*, ev_timer* called, int) {
            auto* const all = static_cast<FedItems*>(called->data);
            auto& ranItem = *static_cast<Item*>(called);
            all->ran(ranItem, [&] { all->wanted_.push_back(&ranItem); });
        });
        ev_set_priority(watcher, high ? 1 : 0);
        watcher->data = this;
        return item;
    }
    void feed() {
        for (Item* const item : wanted_)
            ev_feed_event(busy_.loop, static_cast<ev_timer*>(item), EV_CUSTOM);
        wanted_.clear();
    }
    void turn() override { ev_run(busy_.loop, 0); }
    void stop() override { ev_break(busy_.loop, EVBREAK_ALL); }

    BusyLoop busy_;
    ev_prepare prepare_{};
    std::vector<Item*> wanted_;
};

class LibevTimers {
  public:
    static constexpr bool rounded = true;
    explicit LibevTimers(std::uint64_t n) : timers_(n) {
        for (Timer& timer : timers_) {
            ev_init(static_cast<ev_timer*>(&timer), [](struct ev_loop* loop, ev_timer* called, int) {
                ev_timer_stop(loop, called);
                static_cast<LibevTimers*>(called->data)->expiries.onTime(0);
            });
            timer.data = this;
        }
    }
    ~LibevTimers() { ev_loop_destroy(loop_); }
    LibevTimers(LibevTimers const&) = delete;
    LibevTimers& operator=(LibevTimers const&) = delete;

    template <class Work> void inside(Work&& work) {
        ev_now_update(loop_);
        now_ = secondsNow();
        work();
    }
    void arm(std::uint32_t i, double time) {
        timers_[i].repeat = std::max(time - now_, 1e-9); // 0 would stop it
        ev_timer_again(loop_, &timers_[i]);
    }
    void runUntil(double time) {
        ev_timer end;
        ev_timer_init(
            &end, [](struct ev_loop* loop, ev_timer*, int) { ev_break(loop, EVBREAK_ALL); }, 0.0, 0.0);
        ev_now_update(loop_);
        ev_timer_set(&end, time - secondsNow(), 0.0);
        ev_timer_start(loop_, &end);
        ev_run(loop_, 0);
    }

    Expiries expiries;

  private:
    struct Timer : ev_timer {};

    struct ev_loop* const loop_ = ev_loop_new(EVFLAG_AUTO);
    double now_ = 0;
    std::vector<Timer> timers_;
};

} // namespace

Peer libev() {
    return peer<LibevTimers>("libev", {variant<WatcherItems<ev_idle>>("idle, restarted", true, true),
                                       variant<WatcherItems<ev_prepare>>("prepare, restarted", true, true),
                                       variant<FedItems>("fed before each poll", true),
                                       variant<WatcherItems<ev_idle>>("idle, left active", false, false)});
}

} // namespace Bench
