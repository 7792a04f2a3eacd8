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

/// What runs on the floor below: one virtual call, and the figures of a measured task.
class FloorItem {
  public:
    virtual ~FloorItem() = default;
    virtual void onRun() = 0;

    std::uint32_t references = 1; // its owner's, and the ring's

  private:
    template <bool, bool, bool> friend class Floor;
    using Hook =
        boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::normal_link>>;

    std::uint32_t runs_ = 0;
    Hook hook_;
    std::int64_t addedAt_ = 0;
    std::int64_t startedAt_ = 0;
    std::int64_t latency_ = 0;
    std::int64_t latencyMax_ = 0;
    std::int64_t runTime_ = 0;
    std::int64_t runTimeMax_ = 0;
    std::uint32_t violations_ = 0;
};

/// The floor under a task run: a loop by hand that does only what a run with statistics and history cannot do
/// without. Three readings of the steady clock, three ring entries of 24 bytes with a plain counted reference
/// each, out of an intrusive list and back to its end, the counters and maxima, one virtual call.
///
/// The parts can be left out, to see what they cost.
template <bool clock = true, bool ring = true, bool statistics = true> class Floor {
  public:
    ~Floor() { queue_.clear(); }

    void schedule(FloorItem& item) {
        std::int64_t const now = read();
        record(item, now, 0);
        item.addedAt_ = now;
        queue_.push_back(item);
        ++added_;
    }

    void run(std::uint64_t runs) {
        while (runs-- > 0)
            runOne();
    }

  private:
    static constexpr std::int64_t quantum = 20'000'000;

    static std::int64_t read() {
        if constexpr (clock)
            return steadyNanoseconds();
        return 0;
    }

    void runOne() {
        std::int64_t const start = read();
        FloorItem& item = queue_.front();
        queue_.pop_front();
        if constexpr (statistics) {
            slipMax_ = std::max(slipMax_, start - requestedAt_);
            ++run_;
            ++backToBack_;
            item.latency_ = start - item.addedAt_;
            item.latencyMax_ = std::max(item.latencyMax_, item.latency_);
            ++item.runs_;
        }
        item.startedAt_ = start;
        record(item, start, 2);
        item.onRun();
        std::int64_t const end = read();
        if constexpr (statistics) {
            std::int64_t const time = end - start;
            if (time >= 2 * quantum) [[unlikely]]
                ++item.violations_;
            item.runTimeMax_ = std::max(item.runTimeMax_, time);
            item.runTime_ += time;
        }
        record(item, end, 3);
        requestedAt_ = end;
    }

    void record(FloorItem& item, std::int64_t time, std::uint8_t type) {
        if constexpr (ring)
            ring_.record(item, time, type);
    }

    using Queue =
        boost::intrusive::list<FloorItem,
                               boost::intrusive::member_hook<FloorItem, FloorItem::Hook, &FloorItem::hook_>,
                               boost::intrusive::constant_time_size<false>>;

    Queue queue_;
    FloorRing<FloorItem> ring_;
    std::int64_t requestedAt_ = 0;
    std::int64_t slipMax_ = 0;
    std::uint64_t added_ = 0;
    std::uint64_t run_ = 0;
    std::uint32_t backToBack_ = 0;
};

} // namespace Bench
