#include "Peer.h"

#include <event2/event.h>
#include <event2/event_struct.h>

namespace Bench {
namespace {

struct EventItem : Measured {
    struct event event;
    class EventItems* all;
};

/// Events made active again in their run. After so many callbacks the loop looks at descriptors.
class EventItems final : public PeerItems<EventItem> {
  public:
    EventItems(std::uint64_t n, int callbacks) : base_(newBase(callbacks)) {
        fill(
            n, [this](bool high) { return make(high); },
            [](EventItem& item) { event_active(&item.event, EV_TIMEOUT, 0); });
    }
    ~EventItems() override {
        for (auto const& item : items())
            event_del(&item->event);
        event_base_free(base_);
    }
    EventItems(EventItems const&) = delete;
    EventItems& operator=(EventItems const&) = delete;

  private:
    static event_base* newBase(int callbacks) {
        event_config* const config = event_config_new();
        event_config_set_max_dispatch_interval(config, nullptr, callbacks, 0);
        event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
        event_base* const base = event_base_new_with_config(config);
        event_config_free(config);
        event_base_priority_init(base, 2);
        return base;
    }
    std::unique_ptr<EventItem> make(bool high) {
        auto item = std::make_unique<EventItem>();
        item->all = this;
        event_assign(
            &item->event, base_, -1, 0,
            [](evutil_socket_t, short, void* called) {
                auto& ranItem = *static_cast<EventItem*>(called);
                ranItem.all->ran(ranItem, [&] { event_active(&ranItem.event, EV_TIMEOUT, 0); });
            },
            item.get());
        event_priority_set(&item->event, high ? 0 : 1);
        return item;
    }
    void turn() override { event_base_loop(base_, 0); }
    void stop() override { event_base_loopbreak(base_); }

    event_base* const base_;
};

class LibeventTimers {
  public:
    static constexpr bool rounded = true;
    explicit LibeventTimers(std::uint64_t n) : timers_(n) {
        for (struct event& timer : timers_)
            event_assign(
                &timer, base_, -1, 0,
                [](evutil_socket_t, short, void* all) {
                    static_cast<LibeventTimers*>(all)->expiries.onTime(0);
                },
                this);
    }
    ~LibeventTimers() {
        for (struct event& timer : timers_)
            event_del(&timer);
        event_base_free(base_);
    }
    LibeventTimers(LibeventTimers const&) = delete;
    LibeventTimers& operator=(LibeventTimers const&) = delete;

    /// In a callback of the loop, which then need not read the clock for every timer.
    template <class Work> void inside(Work&& work) {
        auto inLoop = [&] {
            now_ = secondsNow();
            work();
        };
        struct event driver;
        event_assign(
            &driver, base_, -1, 0,
            [](evutil_socket_t, short, void* called) { (*static_cast<decltype(inLoop)*>(called))(); },
            &inLoop);
        event_active(&driver, EV_TIMEOUT, 0);
        event_base_loop(base_, EVLOOP_NONBLOCK);
    }
    void arm(std::uint32_t i, double time) {
        timeval const delay = timevalOf(std::max(time - now_, 0.0));
        event_add(&timers_[i], &delay);
    }
    void runUntil(double time) {
        timeval const delay = timevalOf(time - secondsNow());
        event_base_loopexit(base_, &delay);
        event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY);
    }

    Expiries expiries;

  private:
    static timeval timevalOf(double seconds) {
        auto const whole = static_cast<time_t>(seconds);
        return {whole, static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6)};
    }

    event_base* const base_ = event_base_new();
    double now_ = 0;
    std::vector<struct event> timers_;
};

} // namespace

Peer libevent() {
    if (std::string_view(event_get_version()) != LIBEVENT_VERSION) {
        std::fprintf(stderr, "libev's functions stand before libevent's: linked in the wrong order\n");
        std::exit(1);
    }
    return peer<LibeventTimers>("libevent", {variant<EventItems>("active again, 256 a turn", true, 256),
                                             variant<EventItems>("active again, one a turn", true, 1)});
}

} // namespace Bench
