#pragma once

#include <mox/Export.h>
#include <mox/Seconds.h>
#include <mox/SteadyClock.h>
#include <mox/Wakeup.h>

#include <boost/intrusive/list.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace boost::asio {
class io_context;
}

namespace Mox {

/// The loop under the activity manager and under Kel::EventLoop: immediate calls, timers, and an Asio
/// io_context for descriptors and for waiting.
///
/// One turn calls what was asked for before it began; what re-arms itself in its callback runs on the next
/// turn. While immediate calls are pending, turns follow each other without a system call until a budget
/// ends: 10 microseconds of steady time by the readings that others took, or when that clock went back, or
/// 256 turns. Then timers and descriptors are looked at, so that both are served however busy the loop is.
/// Handlers of descriptors have such a budget, too: from the end of the first one 10 microseconds, or as long
/// as the turns before took, up to a millisecond; or 256 of them. What is ready beyond waits behind the
/// timers and the next turns. So neither side starves the other: each waits for one budget and what its last
/// call overruns it by. Timers on a clock that is not real are looked at on every turn, and of handlers only
/// the number counts then, so that the order of a run under virtual time does not depend on how fast the
/// machine is.
///
/// An attached loop lives in the application's io_context: a posted handler runs turns for one budget, then
/// posts itself again. How many handlers of the application run in between is up to that io_context: all that
/// are ready by then, once; the loop can bound only what it polls itself, in its run functions.
///
/// One thread; other threads may post to the io_context. `fork()` in that thread gives the child a descriptor
/// set of its own (an application that brought its io_context tells it of the fork itself). Callers of the
/// run functions keep the loop alive meanwhile.
class MOX_EXPORT TurnLoop {
  public:
    TurnLoop();
    /// Attaches to the application's io_context; the posted handler keeps the owner alive while it runs.
    TurnLoop(boost::asio::io_context& ioContext, PtrInterface const& owner);
    ~TurnLoop();
    TurnLoop(TurnLoop const&) = delete;
    TurnLoop& operator=(TurnLoop const&) = delete;

    boost::asio::io_context& ioContext() const;

    /// Turns until `stop()`, or until nothing is pending (or, waiting when idle, for ever).
    void run(bool waitsWhenIdle);
    /// Turns until the thread's clock has reached the time and what is due then was called; under a clock
    /// that is not real, also until no immediate call is left. Earlier after `stop()`, or when nothing can
    /// happen any more. Requires: not a NaN.
    void runUntil(Seconds time, bool waitsWhenIdle);
    /// One turn without waiting, timers and descriptors included; returns the number of callbacks made.
    U64 runOnce();
    /// Ends the run under way (and those it is nested in) after the present callback.
    void stop() { stopped_ = true; }

    /// Seconds until something is due: 0 when something is, endOfTime when nothing is pending. Descriptors do
    /// not count, but handlers that the latest turn left for the next one do.
    Seconds nextDue() const;

  private:
    friend class Wakeup;
    struct Io;
    class Fork;
    class Driving;
    using WakeupList =
        boost::intrusive::list<Wakeup,
                               boost::intrusive::member_hook<Wakeup, Wakeup::TurnHook, &Wakeup::turnHook_>,
                               boost::intrusive::constant_time_size<false>>;

    struct Budget {
        SteadyClock::TimePoint start{};
        Nanoseconds time{};
        U32 calls = 0;

        static constexpr U32 callsMax = 256; // for callbacks that never read the clock
        /// Turns go by readings that others took, so that none is paid for. A clock that went back tells
        /// nothing about the time used, and ends the budget too.
        bool isSpent(SteadyClock::TimePoint now) const {
            Nanoseconds const used = now - start;
            return used >= time || used < Nanoseconds(0) || calls >= callsMax;
        }
    };

    explicit TurnLoop(std::unique_ptr<Io> io);

    void nextTurn(Wakeup& wakeup) {
        append(wakeup);
        pendingChanged();
    }
    void append(Wakeup& wakeup) {
        wakeup.askedInTurn_ = turn_;
        immediate_.push_back(wakeup);
    }
    /// An attached loop that is not running leaves the io_context something to go on with.
    void pendingChanged() {
        if (isAttached_ && driven_ == 0)
            requestPump();
    }
    TimerQueue& queueOf(Ptr<Clock const> const& clock);

    bool begins(Wakeup& wakeup);
    void callFirst();
    bool hasCallsOf(U64 turn) const;
    void runBudget();
    void runTurns();
    void serveTimers();
    void serveVirtualTimers();
    void serve(TimerQueue& queue);
    U64 pollDescriptors();

    bool wait(Seconds limit, bool waitsWhenIdle);
    bool clocksJump(Seconds limit) const;
    Seconds sleepTime(Seconds limit) const;
    Seconds dueOn(Clock const& clock, Seconds limit) const;
    bool waitForDescriptors(bool waitsWhenIdle);

    void requestPump();
    void pump();
    void armWait();

    // In the order in which they were asked for: first what is left of the turn under way, then what was
    // asked for in it, which is the next turn's.
    WakeupList immediate_;
    U64 turn_ = 0; // turns begun; nested ones count
    bool stopped_ = false;
    bool const isAttached_;
    U32 driven_ = 0; // run functions under way

    Budget budget_;                  // of the turns under way
    bool turnsFollow_ = false;       // with nothing to be looked at in between
    Wakeup const* called_ = nullptr; // whose call has begun; null once it has asked
    Nanoseconds turnsTook_{};        // the latest ones
    bool handlersLeft_ = false;

    std::vector<std::unique_ptr<TimerQueue>> queues_; // the thread's clock first
    std::unique_ptr<Io> io_;
    TurnLoop* nextOfThread_ = nullptr; // the loops that a fork has to tell
};

// What a busy scheduler asks of its loop in each run stands here, to cost no calls.

inline bool TurnLoop::begins(Wakeup& wakeup) {
    bool const isFirst = !immediate_.empty() && &immediate_.front() == &wakeup;
    if (!isFirst || !turnsFollow_ || stopped_ || budget_.isSpent(SteadyClock::latest()))
        return false;
    ++turn_;
    ++budget_.calls;
    immediate_.pop_front();
    return true;
}

inline bool Wakeup::isCalled() { return std::exchange(loop_.called_, nullptr) == this; }
inline bool Wakeup::takesNextTurn() { return loop_.begins(*this); }

inline void Wakeup::atNextTurn() {
    if (turnHook_.is_linked())
        return;
    if (timerHook_.is_linked()) [[unlikely]]
        return atNextTurnInstead();
    loop_.nextTurn(*this);
}

} // namespace Mox
