#include "HeapTrim.h"

#include <algorithm>
#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace KelKv {

namespace {

constexpr Mox::Seconds period = 1.0;
constexpr std::size_t piecesMin = 10000;        // a megabyte or more
constexpr std::size_t piecesOfConnection = 500; // its buffers, as bytes of keys
constexpr boost::chrono::seconds rest(4);       // from one trim to the next

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

/// What takes memory in pieces that are too small to go back by themselves.
std::size_t HeapTrim::pieces() const {
    return engine_.store.size() + piecesOfConnection * engine_.ports().clients.connections;
}

/// Whether nobody waits for the thread, nor is anything being freed.
bool HeapTrim::isIdle() const {
    return std::ranges::all_of(
        priorities, [&](Kel::TaskPriority of) { return engine_.root->runnableTaskCount(of) == 0; });
}

void HeapTrim::look() {
    most_ = std::max(most_, pieces());
    if (most_ - pieces() < piecesMin || Mox::SteadyClock::now() < next_ || !isIdle())
        return;
    trim();
    next_ = Mox::SteadyClock::now() + rest;
    most_ = pieces();
}

} // namespace KelKv
