#include "Peer.h"

#include <uv.h>

namespace Bench {
namespace {

/// A loop whose handles are all closed before it.
class Loop {
  public:
    Loop() { uv_loop_init(&loop); }
    ~Loop() {
        uv_walk(
            &loop, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;

    uv_loop_t loop;
};

struct HandleItem : Measured {
    uv_idle_t idle;
    uv_prepare_t prepare;
    class HandleItems* all;
    bool high;
};

/// Idle handles, and prepare handles, which a turn runs behind them: there are no priorities. They are
/// stopped and started in each run, or left active.
class HandleItems final : public PeerItems<HandleItem> {
  public:
    HandleItems(std::uint64_t n, bool restarted) : restarted_(restarted), loop_(std::make_unique<Loop>()) {
        fill(
            n, [this](bool high) { return make(high); }, [](HandleItem& item) { start(item); });
    }
    ~HandleItems() override { loop_ = nullptr; }

  private:
    std::unique_ptr<HandleItem> make(bool high) {
        auto item = std::make_unique<HandleItem>();
        item->all = this;
        item->high = high;
        uv_idle_init(&loop_->loop, &item->idle);
        uv_prepare_init(&loop_->loop, &item->prepare);
        item->idle.data = item->prepare.data = item.get();
        return item;
    }
    static void start(HandleItem& item) {
        if (item.high)
            uv_idle_start(&item.idle, [](uv_idle_t* called) { onRun(called->data); });
        else
            uv_prepare_start(&item.prepare, [](uv_prepare_t* called) { onRun(called->data); });
    }
    static void stopItem(HandleItem& item) {
        if (item.high)
            uv_idle_stop(&item.idle);
        else
            uv_prepare_stop(&item.prepare);
    }
    static void onRun(void* data) {
        auto& item = *static_cast<HandleItem*>(data);
        item.all->ran(item, [&] {
            if (!item.all->restarted_)
                return;
            stopItem(item);
            start(item);
        });
    }
    void turn() override { uv_run(&loop_->loop, UV_RUN_DEFAULT); }
    void stop() override { uv_stop(&loop_->loop); }

    bool const restarted_;
    std::unique_ptr<Loop> loop_;
};

class LibuvTimers {
  public:
    static constexpr bool rounded = true;
    explicit LibuvTimers(std::uint64_t n) : timers_(n), loop_(std::make_unique<Loop>()) {
        for (uv_timer_t& timer : timers_) {
            uv_timer_init(&loop_->loop, &timer);
            timer.data = this;
        }
        uv_timer_init(&loop_->loop, &end_);
    }
    ~LibuvTimers() { loop_ = nullptr; }
    LibuvTimers(LibuvTimers const&) = delete;
    LibuvTimers& operator=(LibuvTimers const&) = delete;

    template <class Work> void inside(Work&& work) {
        now();
        work();
    }
    void arm(std::uint32_t i, double time) {
        uv_timer_start(
            &timers_[i],
            [](uv_timer_t* called) { static_cast<LibuvTimers*>(called->data)->expiries.onTime(0); },
            msecUntil(time), 0);
    }
    void runUntil(double time) {
        now();
        uv_timer_start(
            &end_, [](uv_timer_t* called) { uv_stop(called->loop); }, msecUntil(time), 0);
        uv_run(&loop_->loop, UV_RUN_DEFAULT);
    }

    Expiries expiries;

  private:
    void now() {
        uv_update_time(&loop_->loop);
        now_ = secondsNow();
    }
    std::uint64_t msecUntil(double time) const {
        return static_cast<std::uint64_t>(std::max(time - now_, 0.0) * 1e3) + 1;
    }

    double now_ = 0;
    std::vector<uv_timer_t> timers_;
    uv_timer_t end_;
    std::unique_ptr<Loop> loop_;
};

} // namespace

Peer libuv() {
    return peer<LibuvTimers>("libuv",
                             {variant<HandleItems>("idle and prepare handles, restarted", true, true),
                              variant<HandleItems>("idle and prepare handles, left active", false, false)});
}

} // namespace Bench
