#include "HeapTrim.h"

#include "ResidentSize.h"

#include <algorithm>
#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace KelKv {

namespace {

constexpr Mox::Seconds period = 1.0;
constexpr Mox::U64 freedMin = 1 << 20;    // bytes
constexpr std::size_t freedPart = 16;     // or that part of what is in memory
constexpr boost::chrono::seconds rest(4); // from one trim to the next
constexpr boost::chrono::seconds restIfBusy(30);

constexpr Kel::TaskPriority priorities[] = {Kel::TaskPriority::absolute, Kel::TaskPriority::high,
                                            Kel::TaskPriority::normal, Kel::TaskPriority::low,
                                            Kel::TaskPriority::scavenge};

#ifdef __GLIBC__
/// What is larger than the first is the system's again as soon as it is freed; left alone, the allocator
/// moves that bound with what it sees. A heap that ends with as much as the second is cut.
void setUp() {
    mallopt(M_MMAP_THRESHOLD, 1 << 17);
    mallopt(M_TRIM_THRESHOLD, 1 << 22);
}
void trim() { malloc_trim(0); }
#else
void setUp() {}
void trim() {}
#endif

} // namespace

HeapTrim::HeapTrim(Engine const& engine)
    : engine_(engine), task_(Kel::PeriodicTask::PeriodicTaskIs(engine.root, Kel::TaskPriority::low, "memory",
                                                               period, [this] { look(); })) {
    setUp();
    task_->start();
}

HeapTrim::~HeapTrim() { task_->stop(); }

/// What clients let go of, in bytes; others allocate little.
Mox::U64 HeapTrim::released() const {
    Mox::U64 sum = engine_.store.released();
    for (Engine::Limit const& limit : engine_.limits())
        sum += limit.of.released();
    return sum;
}

/// Whether nobody waits for the thread, nor is anything being freed.
bool HeapTrim::isIdle() const {
    return std::ranges::all_of(
        priorities, [&](Kel::TaskPriority of) { return engine_.root->runnableTaskCount(of) == 0; });
}

/// What is counted as let go of is freed in slices afterwards: a trim amidst other work may have come before
/// that, and is done once more at the next quiet moment.
void HeapTrim::look() {
    Mox::U64 const freed = released() - releasedBefore_;
    auto const since = Mox::SteadyClock::now() - last_;
    bool const idle = isIdle();
    bool const isMuch = freed >= std::max<Mox::U64>(freedMin, residentSize() / freedPart);
    if (since < rest || (!idle && since < restIfBusy) || !(isMuch || (idle && wasAmidstWork_)))
        return;
    trim();
    last_ = Mox::SteadyClock::now();
    releasedBefore_ += freed;
    wasAmidstWork_ = !idle;
}

} // namespace KelKv
