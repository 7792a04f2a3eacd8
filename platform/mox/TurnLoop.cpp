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

// How long a busy loop goes on without a look at timers and descriptors, and how long these are served while
// calls wait. A longer budget makes a turn cheaper, since fewer turns pay for the look, and has the other
// side wait longer.
constexpr Nanoseconds budgetTime = boost::chrono::microseconds(10);
// The most that descriptors are given to make up for calls that took longer than their budget.
constexpr Nanoseconds descriptorTimeMax = boost::chrono::milliseconds(1);
constexpr Seconds sleepMax = 86400.0; // well inside what the system's timers take

/// A sleep is rounded up: a loop that wakes before the time would have to sleep again.
std::chrono::nanoseconds sleepDuration(Seconds seconds) {
    return std::chrono::nanoseconds(toNanoseconds(std::min(seconds, sleepMax)).count() + 1);
}

} // namespace

/// The loop's end of Asio. The io_context may be the application's, and handlers that the loop has left there
/// then outlive the loop: they refer to it through a cell of their own that tells them so.
struct TurnLoop::Io {
    Io() : own(std::in_place, 1), context(*own), timer(context) {}
    Io(boost::asio::io_context& application, PtrInterface const& loopOwner)
        : context(application), timer(application), owner(&loopOwner) {}

    std::optional<boost::asio::io_context> own;
    boost::asio::io_context& context;
    boost::asio::steady_timer timer;
    PtrInterface const* owner = nullptr;
    U64 ownHandlers = 0; // handlers of the loop itself that have run
    std::shared_ptr<TurnLoop*> loop = std::make_shared<TurnLoop*>(nullptr); // null once it is gone
    bool pumpPosted = false;
};

/// Tells the loops of a forking thread: Asio asks for it before, and after on both sides. Other threads'
/// loops are not told, since the child has no other threads. What is registered with the system stays so for
/// ever, hence once for all loops and a list of them beside it.
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

// The queue of the thread's clock is there from the start: where runUntil() ends is a time on that clock, to
// be waited for even when no timer is armed on it. An attached loop is told of no fork, since its io_context
// is the application's to tell.
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

/// The wakeup leaves the list before it is called: it may ask for the next turn, be destroyed, or turn this
/// loop, and then what stands behind it is called from there.
inline void TurnLoop::callFirst() {
    Wakeup& wakeup = immediate_.front();
    immediate_.pop_front();
    called_ = &wakeup;
    wakeup.onWakeup();
    called_ = nullptr;
}

/// One list serves the turn under way and the next, since its front tells whose turn it is; nested turns
/// begin with what is left of the outer ones, so the order of calls is that of asking, however deep the turns
/// nest.
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

/// What is due at the very end still gets its call, and a wheel that is not through with it is waited for.
/// Under a clock that is not real that goes on until nothing immediate is left, so that a run ends in the
/// same state however long a budget lasts on the machine; on a real clock work that asks for itself again
/// would never let it end.
void TurnLoop::runUntil(Seconds time, bool waitsWhenIdle) {
    MOX_ASSERT_AS("!std::isnan( time )", !std::isnan(time));
    Driving const driving(*this);
    auto const goesOn = [&] { return !stopped_ && threadClock().now() < time; };
    while (goesOn()) {
        runBudget();
        if (immediate_.empty() && goesOn() && !wait(time, waitsWhenIdle))
            return;
    }
    auto const isLeft = [&](Wakeup const& call) { return call.goesOn() || !threadClock().isReal(); };
    bool isOver = stopped_;
    while (!isOver) {
        runBudget();
        isOver = stopped_ || std::ranges::none_of(immediate_, isLeft);
    }
}

/// Timers and descriptors come first, so that what they ask for is called in this same turn. A turn within a
/// run counts in that run's budget.
U64 TurnLoop::runOnce() {
    Driving const driving(*this);
    serveTimers();
    U64 calls = pollDescriptors();
    ++budget_.calls;
    auto const start = SteadyClock::latest();
    bool const outerFollow = std::exchange(turnsFollow_, false);
    for (U64 const turn = ++turn_; hasCallsOf(turn) && !stopped_; ++calls)
        callFirst();
    turnsFollow_ = outerFollow;
    turnsTook_ = SteadyClock::latest() - start;
    return calls;
}

void TurnLoop::runBudget() {
    serveTimers();
    pollDescriptors();
    runTurns();
}

/// One test between two calls: a busy scheduler makes turns of one call, and would otherwise test both list
/// and budget for each. Whether a clock is virtual is asked once a budget for the same reason.
void TurnLoop::runTurns() {
    bool const hasVirtualTimers =
        std::ranges::any_of(queues_, [](auto const& queue) { return !queue->clock().isReal(); });
    budget_ = {SteadyClock::latest(), budgetTime};
    bool const outerFollow = std::exchange(turnsFollow_, !hasVirtualTimers);
    for (; !stopped_; callFirst())
        if (!hasCallsOf(turn_)) {
            if (hasVirtualTimers)
                serveVirtualTimers();
            if (immediate_.empty() || budget_.isSpent(SteadyClock::latest()))
                break;
            ++turn_;
            ++budget_.calls;
        }
    turnsFollow_ = outerFollow;
    turnsTook_ = SteadyClock::latest() - budget_.start;
}

// Timers and descriptors

/// A clock that nobody waits for is not read, and one reading serves all that is due.
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

/// Handlers one by one, since those that run make others ready without end while peers keep sending. They are
/// given as long as the turns before took: beside tasks that use a quantum each, a hundred sockets would
/// otherwise be looked at a few at a time. The clock is read between two of them, and not at all while
/// descriptors are silent; under virtual time their number alone counts, so that the order of a run does not
/// depend on the machine.
///
/// An io_context that once found nothing pending stays stopped, and has to be restarted before it serves what
/// came since. The loop's own handlers are no callbacks of anybody, and are left out of the count.
U64 TurnLoop::pollDescriptors() {
    SteadyClock::bindAnew();
    if (io_->context.stopped())
        io_->context.restart();
    U64 const ownBefore = io_->ownHandlers;
    Budget budget{{}, std::clamp(turnsTook_, budgetTime, descriptorTimeMax)};
    handlersLeft_ = false;
    for (bool const isTimed = threadClock().isReal(); !handlersLeft_ && io_->context.poll_one() > 0;) {
        auto const now = isTimed ? SteadyClock::now() : budget.start;
        if (budget.calls++ == 0)
            budget.start = now;
        handlersLeft_ = stopped_ || budget.isSpent(now);
    }
    return budget.calls - (io_->ownHandlers - ownBefore);
}

// Waiting

/// Nothing is immediate: lets the clocks jump, or sleeps. False when nothing can happen any more.
///
/// Jumps come first, since a clock that jumps makes something due at once. The sleep ends with whatever comes
/// first, a handler of the application or the loop's own timer; that is cancelled then, or its wait would
/// count as something pending and keep a run with nothing left to do from ending.
bool TurnLoop::wait(Seconds limit, bool waitsWhenIdle) {
    if (clocksJump(limit))
        return true;
    if (io_->context.stopped())
        io_->context.restart();
    Seconds const duration = sleepTime(limit);
    if (duration == endOfTime)
        return waitForDescriptors(waitsWhenIdle);
    io_->timer.expires_after(sleepDuration(duration));
    io_->timer.async_wait([loop = io_->loop](boost::system::error_code) {
        if (*loop)
            ++(*loop)->io_->ownHandlers;
    });
    SteadyClock::bindAnew();
    io_->context.run_one();
    io_->timer.cancel();
    return true;
}

/// Every clock that can jump does, each to what is due first on it: they know nothing of each other, and one
/// that waited for the others to come to rest might wait for ever.
bool TurnLoop::clocksJump(Seconds limit) const {
    bool jumped = false;
    for (auto const& queue : queues_) {
        Seconds const until = dueOn(queue->clock(), limit);
        if (until != endOfTime && queue->clock().idleUntil(until))
            jumped = true;
    }
    return jumped;
}

/// Time on a clock that is not real does not pass by sleeping, so only real ones count.
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

/// Without the guard the io_context returns at once when no descriptor is waited for, which is how a run
/// ends; with it, it waits until another thread posts something.
bool TurnLoop::waitForDescriptors(bool waitsWhenIdle) {
    SteadyClock::bindAnew();
    if (!waitsWhenIdle)
        return io_->context.run_one() > 0;
    auto const guard = boost::asio::make_work_guard(io_->context);
    io_->context.run_one();
    return true;
}

Seconds TurnLoop::nextDue() const {
    if (!immediate_.empty() || handlersLeft_)
        return 0.0;
    Seconds shortest = endOfTime;
    for (auto const& queue : queues_)
        if (!queue->empty())
            shortest = std::min(shortest, std::max(0.0, queue->earliest() - queue->clock().now()));
    return shortest;
}

// Inside the application's io_context

/// At most one pump waits in the io_context, whatever is armed meanwhile: it serves all.
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

/// One budget, so that the application's handlers get their turn in between. A pump that a run function has
/// polled leaves the work to that. The owner is held because a callback may let the loop go. The io_context
/// does not say when it has run dry, so a clock that can jump does so here, once nothing immediate is left.
void TurnLoop::pump() {
    ++io_->ownHandlers;
    if (driven_ > 0)
        return;
    Ptr<PtrInterface const> const owner = io_->owner;
    Driving const driving(*this);
    serveTimers();
    runTurns();
    if (immediate_.empty() && clocksJump(endOfTime))
        serveTimers();
}

/// Replaces the wait before; with nothing to wait for, the io_context is left with none, so that its own run
/// can end. The handler of a wait that was replaced only counts itself.
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
