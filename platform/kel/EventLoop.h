#pragma once

#include <mox/Ptr.h>
#include <mox/Seconds.h>

#include <memory>

namespace boost::asio {
class io_context;
}

namespace Mox {
class ActivityManager;
class TurnLoop;
} // namespace Mox

namespace Kel {

/// The loop of a process: timers (Kel::TimerEvent), and through `ioContext()` the sockets, signals and files
/// of the application.
///
/// It owns its loop, or is attached to the application's io_context, which then turns it, or is carried by
/// the activity manager's loop. Timers follow Mox::now(), so a VirtualClock moves them; descriptors are real.
/// How turns, budgets and waiting work is told in <mox/TurnLoop.h>.
///
/// Thread rule: the thread that made it. Lifetime: counted; the run functions hold it.
class MOX_EXPORT EventLoop : public Mox::PtrInterface {
  public:
    static Mox::Ptr<EventLoop> EventLoopIs();
    /// Lives inside the application's io_context, which must outlive it. A program that forks tells that
    /// io_context of it.
    static Mox::Ptr<EventLoop> EventLoopIs(boost::asio::io_context& ioContext);
    static Mox::Ptr<EventLoop> EventLoopIs(Mox::Ptr<Mox::ActivityManager> const& manager);

    ~EventLoop() override;

    boost::asio::io_context& ioContext() const;

    /// Turns until `stop()`, or until nothing is pending unless `runsWhenIdle()`. A task scheduler's root on
    /// the loop always has something pending.
    void run();
    /// Turns until Mox::now() has reached the time, in seconds, and what was due by then was called.
    void runUntil(Mox::Seconds time);
    /// One turn without waiting, timers and descriptors included; returns the number of callbacks made.
    Mox::U64 runOnce();
    /// Ends `run()` or `runUntil()` after the present callback.
    void stop();
    /// Seconds until something is due: 0 when something is, endOfTime when nothing is pending. Descriptors do
    /// not count, but handlers that the latest turn left for the next one do. An outside loop waits that long
    /// and calls `runOnce()`; for each socket on `ioContext()` it waits itself, by its native handle. Where
    /// there are many, attach to an io_context that is run instead.
    Mox::Seconds nextDue() const;

    /// Whether `run()` waits, instead of returning, when nothing is pending: no keep-alive timer is needed.
    bool runsWhenIdle() const { return runsWhenIdle_; }
    /// Requires: true on a loop that the activity manager carries.
    void runsWhenIdleIs(bool runsWhenIdle);

    /// Whether the loop is carried by the activity manager's.
    bool useMoxEventLoop() const { return !ownLoop_; }

    Mox::TurnLoop& turnLoop() const { return *loop_; }

    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  private:
    EventLoop();

    Mox::Ptr<Mox::ActivityManager> manager_; // the thread's, for its clock
    std::unique_ptr<Mox::TurnLoop> ownLoop_;
    Mox::TurnLoop* loop_ = nullptr;
    bool runsWhenIdle_ = false;
};

} // namespace Kel
