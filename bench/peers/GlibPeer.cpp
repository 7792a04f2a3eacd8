#include "Peer.h"

#pragma GCC diagnostic ignored "-Wold-style-cast" // the macros of its header
#include <glib.h>

namespace Bench {
namespace {

constexpr int priorityOf(bool high) { return high ? G_PRIORITY_HIGH_IDLE : G_PRIORITY_DEFAULT_IDLE; }

template <class Contents> struct SourceOf {
    GSource source;
    Contents* contents;
};
template <class Contents> Contents& contentsOf(GSource* source) {
    return *reinterpret_cast<SourceOf<Contents>*>(source)->contents;
}

/// A source that is ready at its ready time, and then calls `onReady` of its contents. Not attached yet.
template <class Contents> GSource* timedSource(Contents& contents, int priority) {
    static GSourceFuncs functions{nullptr,
                                  nullptr,
                                  [](GSource* source, GSourceFunc, gpointer) -> gboolean {
                                      contentsOf<Contents>(source).onReady();
                                      return G_SOURCE_CONTINUE;
                                  },
                                  nullptr,
                                  nullptr,
                                  nullptr};
    GSource* const source = g_source_new(&functions, sizeof(SourceOf<Contents>));
    reinterpret_cast<SourceOf<Contents>*>(source)->contents = &contents;
    g_source_set_priority(source, priority);
    return source;
}

void destroy(GSource* source) {
    g_source_destroy(source);
    g_source_unref(source);
}

class Context {
  public:
    ~Context() { g_main_context_unref(context); }
    GMainContext* const context = g_main_context_new();
};

class ReadyItems;
struct ReadyItem : Measured {
    void onReady();
    ReadyItems* all = nullptr;
    GSource* source = nullptr;
};

/// Sources that are no longer ready, and are again, in each run; or left ready.
class ReadyItems final : public PeerItems<ReadyItem> {
  public:
    ReadyItems(std::uint64_t n, bool again) : again_(again) {
        fill(
            n, [this](bool high) { return make(high); },
            [this](ReadyItem& item) {
                g_source_set_ready_time(item.source, 0);
                g_source_attach(item.source, context_.context); // they run in this order
            });
    }
    ~ReadyItems() override {
        for (auto const& item : items())
            destroy(item->source);
    }
    ReadyItems(ReadyItems const&) = delete;
    ReadyItems& operator=(ReadyItems const&) = delete;

    void onRun(ReadyItem& item) {
        ran(item, [&] {
            if (!again_)
                return;
            g_source_set_ready_time(item.source, -1);
            g_source_set_ready_time(item.source, 0);
        });
    }

  private:
    std::unique_ptr<ReadyItem> make(bool high) {
        auto item = std::make_unique<ReadyItem>();
        item->all = this;
        item->source = timedSource(*item, priorityOf(high));
        return item;
    }
    void turn() override {
        while (!done())
            g_main_context_iteration(context_.context, FALSE);
    }

    bool const again_;
    Context context_;
};
void ReadyItem::onReady() { all->onRun(*this); }

class IdleItems;
struct IdleItem : Measured {
    IdleItems* all = nullptr;
    int priority = 0;
};

/// An idle source, made anew in each run.
class IdleItems final : public PeerItems<IdleItem> {
  public:
    explicit IdleItems(std::uint64_t n) {
        fill(
            n, [this](bool high) { return make(high); }, [this](IdleItem& item) { attach(item); });
    }

  private:
    std::unique_ptr<IdleItem> make(bool high) {
        auto item = std::make_unique<IdleItem>();
        item->all = this;
        item->priority = priorityOf(high);
        return item;
    }
    void attach(IdleItem& item) {
        GSource* const source = g_idle_source_new();
        g_source_set_priority(source, item.priority);
        g_source_set_callback(
            source,
            [](gpointer called) -> gboolean {
                auto& ranItem = *static_cast<IdleItem*>(called);
                ranItem.all->ran(ranItem, [&] { ranItem.all->attach(ranItem); });
                return G_SOURCE_REMOVE;
            },
            &item, nullptr);
        g_source_attach(source, context_.context);
        g_source_unref(source);
    }
    void turn() override {
        while (!done())
            g_main_context_iteration(context_.context, FALSE);
    }

    Context context_;
};

class GlibTimers {
  public:
    static constexpr bool rounded = true;
    explicit GlibTimers(std::uint64_t n) : timers_(n) {
        for (Timer& timer : timers_) {
            timer.all = this;
            timer.source = timedSource(timer, G_PRIORITY_DEFAULT);
            g_source_attach(timer.source, context_.context);
        }
    }
    ~GlibTimers() {
        for (Timer const& timer : timers_)
            destroy(timer.source);
    }
    GlibTimers(GlibTimers const&) = delete;
    GlibTimers& operator=(GlibTimers const&) = delete;

    template <class Work> void inside(Work&& work) { work(); }
    void arm(std::uint32_t i, double time) {
        g_source_set_ready_time(timers_[i].source, static_cast<gint64>(time * 1e6) + 1);
    }
    void runUntil(double time) {
        bool ended = false;
        GSource* const end =
            g_timeout_source_new(static_cast<guint>(std::max(time - secondsNow(), 0.0) * 1e3));
        g_source_set_callback(
            end,
            [](gpointer flag) -> gboolean {
                *static_cast<bool*>(flag) = true;
                return G_SOURCE_REMOVE;
            },
            &ended, nullptr);
        g_source_attach(end, context_.context);
        while (!ended)
            g_main_context_iteration(context_.context, TRUE);
        g_source_unref(end);
    }

    Expiries expiries;

  private:
    struct Timer {
        void onReady() {
            g_source_set_ready_time(source, -1);
            all->expiries.onTime(0);
        }
        GlibTimers* all = nullptr;
        GSource* source = nullptr;
    };

    Context context_;
    std::vector<Timer> timers_;
};

} // namespace

Peer glib() {
    return peer<GlibTimers>("GLib", {variant<ReadyItems>("source made ready again", true, true),
                                     variant<IdleItems>("idle source attached anew", true),
                                     variant<ReadyItems>("source left ready", false, false)});
}

} // namespace Bench
