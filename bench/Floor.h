#pragma once

#include <bench/Sampling.h>

#include <boost/intrusive/list.hpp>

#include <cstdint>
#include <vector>

namespace Bench {

/// A ring of the latest 10,000 events, of 24 bytes each with a plain counted reference to what they are
/// about.
template <class Item> class FloorRing {
  public:
    void record(Item& item, std::int64_t time, std::uint8_t type) {
        at_ = at_ == 0 ? ring_.size() - 1 : at_ - 1;
        Event& event = ring_[at_];
        if (event.item && --event.item->references == 0) [[unlikely]]
            delete event.item;
        ++item.references;
        event = {time, &item, type};
    }

  private:
    struct Event {
        std::int64_t time = 0;
        Item* item = nullptr;
        std::uint8_t type = 0;
    };
    static_assert(sizeof(void*) != 8 || sizeof(Event) == 24);

    std::vector<Event> ring_ = std::vector<Event>(10000);
    std::size_t at_ = 0;
};

#if defined(__x86_64__) || defined(__i386__)
/// The time-stamp counter, at a rate that is measured once.
struct CounterRate {
    static constexpr unsigned bits = 20;

    std::uint64_t const start = __builtin_ia32_rdtsc();
    std::uint64_t const rate = [](std::uint64_t begin) {
        std::int64_t const from = steadyNanoseconds();
        while (steadyNanoseconds() - from < 10'000'000) {
        }
        return (static_cast<std::uint64_t>(steadyNanoseconds() - from) << bits) /
               (__builtin_ia32_rdtsc() - begin);
    }(start);
};

inline std::int64_t counterNanoseconds() {
    static CounterRate const counterRate;
    return static_cast<std::int64_t>((__builtin_ia32_rdtsc() - counterRate.start) * counterRate.rate >>
                                     CounterRate::bits);
}
#else
inline std::int64_t counterNanoseconds() { return steadyNanoseconds(); }
#endif

/// The figures of what is measured at every run, as a task has them.
struct Measured {
    std::uint32_t references = 1; // its owner's, and the ring's
    std::uint32_t runs = 0;
    std::int64_t addedAt = 0;
    std::int64_t startedAt = 0;
    std::int64_t latency = 0;
    std::int64_t latencyMax = 0;
    std::int64_t runTime = 0;
    std::int64_t runTimeMax = 0;
    std::uint32_t violations = 0;
};

/// What a run with statistics and history cannot do without, whoever runs it: three readings of the steady
/// clock, three ring entries of 24 bytes with a plain counted reference each, the counters and maxima.
///
/// The parts can be left out, to see what they cost, and the clock may be the processor's counter. `Item`
/// derives from `Measured`.
template <class Item, bool clock = true, bool ring = true, bool statistics = true, bool counter = false>
class Bookkeeping {
  public:
    void queued(Item& item) {
        item.addedAt = read();
        record(item, item.addedAt, 0);
        ++added_;
    }

    void begun(Item& item) {
        std::int64_t const start = read();
        if constexpr (statistics) {
            slipMax_ = std::max(slipMax_, start - requestedAt_);
            ++run_;
            ++backToBack_;
            item.latency = start - item.addedAt;
            item.latencyMax = std::max(item.latencyMax, item.latency);
            ++item.runs;
        }
        item.startedAt = start;
        record(item, start, 2);
    }

    void ended(Item& item) {
        std::int64_t const end = read();
        if constexpr (statistics) {
            std::int64_t const time = end - item.startedAt;
            if (time >= 2 * quantum) [[unlikely]]
                ++item.violations;
            item.runTimeMax = std::max(item.runTimeMax, time);
            item.runTime += time;
        }
        record(item, end, 3);
        requestedAt_ = end;
    }

  private:
    static constexpr std::int64_t quantum = 20'000'000;

    static std::int64_t read() {
        if constexpr (clock && counter)
            return counterNanoseconds();
        return clock ? steadyNanoseconds() : 0;
    }
    void record(Item& item, std::int64_t time, std::uint8_t type) {
        if constexpr (ring)
            ring_.record(item, time, type);
    }

    FloorRing<Item> ring_;
    std::int64_t requestedAt_ = 0;
    std::int64_t slipMax_ = 0;
    std::uint64_t added_ = 0;
    std::uint64_t run_ = 0;
    std::uint32_t backToBack_ = 0;
};

/// What runs on the floor below.
class FloorItem : public Measured {
  public:
    virtual ~FloorItem() = default;
    virtual void onRun() = 0;

  private:
    template <bool...> friend class Floor;
    using Hook =
        boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::normal_link>>;
    Hook hook_;
};

/// The floor under a task run: a loop by hand that does only what cannot be left out. The bookkeeping, out of
/// an intrusive list and back to its end, one virtual call.
template <bool... parts> class Floor {
  public:
    ~Floor() { queue_.clear(); }

    void schedule(FloorItem& item) {
        bookkeeping_.queued(item);
        queue_.push_back(item);
    }

    void run(std::uint64_t runs) {
        while (runs-- > 0)
            runOne();
    }

  private:
    void runOne() {
        FloorItem& item = queue_.front();
        queue_.pop_front();
        bookkeeping_.begun(item);
        item.onRun();
        bookkeeping_.ended(item);
    }

    using Queue =
        boost::intrusive::list<FloorItem,
                               boost::intrusive::member_hook<FloorItem, FloorItem::Hook, &FloorItem::hook_>,
                               boost::intrusive::constant_time_size<false>>;

    Queue queue_;
    Bookkeeping<FloorItem, parts...> bookkeeping_;
};

} // namespace Bench
