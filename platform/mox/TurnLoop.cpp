#define MOX_SOURCE_NAME "TurnLoop"
#include <mox/TurnLoop.h>

#include <mox/ActivityManager.h>
#include <mox/Assert.h>
#include <mox/detail/TimerQueue.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace Mox {

namespace {

constexpr Nanoseconds budgetTime = boost::chrono::microseconds(10);
constexpr U32 budgetTurnsMax = 256;
constexpr Seconds sleepMax = 86400.0; // well inside what the system's timers take

/// A sleep is rounded up: a loop that wakes before the time would have to sleep again.
std::chrono::nanoseconds sleepDuration(Seconds seconds) {
    return std::chrono::nanoseconds(toNanoseconds(std::min(seconds, sleepMax)).count() + 1);
}

} // namespace

/// The loop's end of Asio.
struct TurnLoop::Io {
    Io() : own(std::in_place, 1), context(*own), timer(context) {}
    Io(boost::asio::io_context& application, PtrInterface const& loopOwner)
        : context(application), timer(application), owner(&loopOwner) {}

    std::optional<boost::asio::io_context> own;
    boost::asio::io_context& context;
    boost::asio::steady_timer timer;
    PtrInterface const* owner = nullptr;
    U64 ownHandlers = 0; // handlers of the loop itself that have run
    // What handlers see of the loop: null once it is gone.
    std::shared_ptr<TurnLoop*> loop = std::make_shared<TurnLoop*>(nullptr);
    bool pumpPosted = false;
};

/// Tells the loops of a forking thread: Asio asks for it before, and after on both sides.
class TurnLoop::Fork {
  public:
    static void watch(TurnLoop* loop) {
        static int const registered = pthread_atfork([] { tell(boost::asio::io_context::fork_prepare); },
                                                     [] { tell(boost::asio::io_context::fork_parent); },
                                                     [] { tell(boost::asio::io_context::fork_child); });
        MOX_ASSERT(registered == 0);
        loop->nextOfThread_ = first;
        first = loop;
    }
    static void forget(TurnLoop* loop) {
        TurnLoop** at = &first;
        while (*at && *at != loop)
            at = &(*at)->nextOfThread_;
        if (*at)
            *at = loop->nextOfThread_;
    }

  private:
    static void tell(boost::asio::io_context::fork_event event) {
        for (TurnLoop* loop = first; loop; loop = loop->nextOfThread_)
            loop->io_->context.notify_fork(event);
    }
    // Plain pointers, so that loops may be made and go while the thread's locals are destroyed.
    static constinit thread_local TurnLoop* first;
};

constinit thread_local TurnLoop* TurnLoop::Fork::first = nullptr;

/// A run function under way. At the end of the outermost one, an attached loop leaves the io_context a
/// handler to go on with.
class TurnLoop::Driving {
  public:
    explicit Driving(TurnLoop& loop) : loop_(loop), outerStopped_(loop.driven_ > 0 && loop.stopped_) {
        ++loop_.driven_;
        loop_.stopped_ = false;
    }
    ~Driving() {
        loop_.stopped_ = loop_.stopped_ || outerStopped_;
        if (--loop_.driven_ > 0 || !loop_.isAttached_)
            return;
        if (loop_.immediate_.empty())
            loop_.armWait();
        else
            loop_.requestPump();
    }
    Driving(Driving const&) = delete;
    Driving& operator=(Driving const&) = delete;

  private:
    TurnLoop& loop_;
    bool const outerStopped_; // a run nested in one that is to end does not undo that
};

TurnLoop::TurnLoop(std::unique_ptr<Io> io) : isAttached_(!io->own), io_(std::move(io)) {
    queues_.push_back(std::make_unique<TimerQueue>(nullptr));
    *io_->loop = this;
    if (!isAttached_)
        Fork::watch(this);
}

TurnLoop::TurnLoop() : TurnLoop(std::make_unique<Io>()) {}

TurnLoop::TurnLoop(boost::asio::io_context& ioContext, PtrInterface const& owner)
    : TurnLoop(std::make_unique<Io>(ioContext, owner)) {}

TurnLoop::~TurnLoop() {
    if (!isAttached_)
        Fork::forget(this);
    *io_->loop = nullptr;
}

boost::asio::io_context& TurnLoop::ioContext() const { return io_->context; }

TimerQueue& TurnLoop::queueOf(Ptr<Clock const> const& clock) {
    auto const found = std::ranges::find_if(queues_, [&](auto const& q) { return q->isOf(clock.ptr()); });
    if (found != queues_.end())
        return **found;
    return *queues_.emplace_back(std::make_unique<TimerQueue>(clock));
}

// Running

inline void TurnLoop::callFirst() {
    Wakeup& wakeup = immediate_.front();
    immediate_.pop_front();
    wakeup.onWakeup(); // may destroy the wakeup, and turn this loop
}

inline bool TurnLoop::hasCallsOf(U64 turn) const {
    return !immediate_.empty() && immediate_.front().askedInTurn_ < turn;
}

void TurnLoop::run(bool waitsWhenIdle) {
    Driving const driving(*this);
    while (!stopped_) {
        runBudget();
        if (immediate_.empty() && !stopped_ && !wait(endOfTime, waitsWhenIdle))
            break;
    }
}

void TurnLoop::runUntil(Seconds time, bool waitsWhenIdle) {
    MOX_ASSERT_AS("!std::isnan( time )", !std::isnan(time));
    Driving const driving(*this);
    while (!stopped_ && threadClock().now() < time) {
        runBudget();
        if (immediate_.empty() && !stopped_ && !wait(time, waitsWhenIdle))
            return;
    }
    if (!stopped_)
        runBudget();
    while (!threadClock().isReal() && !immediate_.empty() && !stopped_)
        runBudget();
}

U64 TurnLoop::runOnce() {
    Driving const driving(*this);
    serveTimers();
    U64 calls = pollDescriptors();
    ++budgetTurns_;
    for (U64 const turn = ++turn_; hasCallsOf(turn) && !stopped_; ++calls)
        callFirst();
    return calls;
}

void TurnLoop::runBudget() {
    serveTimers();
    pollDescriptors();
    runTurns();
}

inline bool TurnLoop::budgetSpent() const {
    Nanoseconds const used = SteadyClock::latest() - budgetStart_;
    return used >= budgetTime || used < Nanoseconds(0) || budgetTurns_ >= budgetTurnsMax;
}

void TurnLoop::runTurns() {
    bool const hasVirtualTimers =
        std::ranges::any_of(queues_, [](auto const& queue) { return !queue->clock().isReal(); });
    budgetStart_ = SteadyClock::latest();
    budgetTurns_ = 0;
    for (; !stopped_; callFirst())
        if (!hasCallsOf(turn_)) {
            if (hasVirtualTimers)
                serveVirtualTimers();
            if (immediate_.empty() || budgetSpent())
                return;
            ++turn_;
            ++budgetTurns_;
        }
}

// Timers and descriptors

void TurnLoop::serve(TimerQueue& queue) {
    if (queue.empty())
        return;
    Seconds const now = queue.clock().now();
    while (Wakeup* const wakeup = queue.takeDue(now))
        append(*wakeup);
}

void TurnLoop::serveTimers() {
    for (auto const& queue : queues_)
        serve(*queue);
}

void TurnLoop::serveVirtualTimers() {
    for (auto const& queue : queues_)
        if (!queue->clock().isReal())
            serve(*queue);
}

U64 TurnLoop::pollDescriptors() {
    if (io_->context.stopped())
        io_->context.restart();
    U64 const ownBefore = io_->ownHandlers;
    return io_->context.poll() - (io_->ownHandlers - ownBefore);
}

// Waiting

/// Nothing is immediate: lets the clocks jump, or sleeps. False when nothing can happen any more.
bool TurnLoop::wait(Seconds limit, bool waitsWhenIdle) {
    if (clocksJump(limit))
        return true;
    if (io_->context.stopped()) // it ran dry at the last poll, and would not wait
        io_->context.restart();
    Seconds const duration = sleepTime(limit);
    if (duration == endOfTime)
        return waitForDescriptors(waitsWhenIdle);
    io_->timer.expires_after(sleepDuration(duration));
    io_->timer.async_wait([loop = io_->loop](boost::system::error_code) {
        if (*loop)
            ++(*loop)->io_->ownHandlers;
    });
    io_->context.run_one();
    io_->timer.cancel();
    return true;
}

bool TurnLoop::clocksJump(Seconds limit) const {
    bool jumped = false;
    for (auto const& queue : queues_) {
        Seconds const until = dueOn(queue->clock(), limit);
        if (until != endOfTime && queue->clock().idleUntil(until))
            jumped = true;
    }
    return jumped;
}

Seconds TurnLoop::sleepTime(Seconds limit) const {
    Seconds shortest = endOfTime;
    for (auto const& queue : queues_) {
        Seconds const until = dueOn(queue->clock(), limit);
        if (until != endOfTime && queue->clock().isReal())
            shortest = std::min(shortest, std::max(0.0, until - queue->clock().now()));
    }
    return shortest;
}

/// When something is due on that clock, which several queues may have; the limit is on the thread's.
Seconds TurnLoop::dueOn(Clock const& clock, Seconds limit) const {
    Seconds due = &clock == &threadClock() ? limit : endOfTime;
    for (auto const& queue : queues_)
        if (&queue->clock() == &clock && !queue->empty())
            due = std::min(due, queue->earliest());
    return due;
}

bool TurnLoop::waitForDescriptors(bool waitsWhenIdle) {
    if (!waitsWhenIdle)
        return io_->context.run_one() > 0; // at once when there is none to wait for
    auto const guard = boost::asio::make_work_guard(io_->context);
    io_->context.run_one();
    return true;
}

Seconds TurnLoop::nextDue() const {
    if (!immediate_.empty())
        return 0.0;
    Seconds shortest = endOfTime;
    for (auto const& queue : queues_)
        if (!queue->empty())
            shortest = std::min(shortest, std::max(0.0, queue->earliest() - queue->clock().now()));
    return shortest;
}

// Inside the application's io_context

void TurnLoop::requestPump() {
    if (io_->pumpPosted)
        return;
    io_->pumpPosted = true;
    boost::asio::post(io_->context, [loop = io_->loop] {
        if (!*loop)
            return;
        (*loop)->io_->pumpPosted = false;
        (*loop)->pump();
    });
}

void TurnLoop::pump() {
    ++io_->ownHandlers;
    if (driven_ > 0)
        return; // polled by a run function, which turns anyway
    Ptr<PtrInterface const> const owner = io_->owner;
    Driving const driving(*this);
    serveTimers();
    runTurns();
    if (immediate_.empty() && clocksJump(endOfTime))
        serveTimers();
}

void TurnLoop::armWait() {
    Seconds const duration = sleepTime(endOfTime);
    if (duration == endOfTime) {
        io_->timer.cancel();
        return;
    }
    io_->timer.expires_after(sleepDuration(duration));
    io_->timer.async_wait([loop = io_->loop](boost::system::error_code error) {
        if (*loop && !error)
            (*loop)->pump();
        else if (*loop)
            ++(*loop)->io_->ownHandlers;
    });
}

Clock const& TimerQueue::clock() const { return clock_ ? *clock_ : threadClock(); }

} // namespace Mox
