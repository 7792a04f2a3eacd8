#include <mox/ActivityManager.h>
#include <mox/TurnLoop.h>

#include <support/Calls.h>
#include <support/ManualClock.h>
#include <support/Random.h>
#include <support/TraceLog.h>
#include <support/VirtualTime.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

using namespace TestSupport;
using Alarm = TimerCall<Clock::NotifieeConst>;

/// The loops there are: in an io_context, turned by its own functions or by the application, and the one of
/// the thread's manager, which carries an event loop.
enum class Form { attached, application, carried };
enum Kind { once, until, run };

struct Loop {
    explicit Loop(Form f)
        : form(f), loop(f == Form::carried ? EventLoop::EventLoopIs(activityManager())
                                           : EventLoop::EventLoopIs(context)) {}
    U64 runs(Kind kind, Seconds limit) {
        if (kind == once)
            return turns.runOnce();
        if (kind == until)
            turns.runUntil(limit, false);
        else if (form == Form::application)
            context.restart(), context.run();
        else
            turns.run(false);
        return 0;
    }

    Form const form;
    boost::asio::io_context context;
    Ptr<EventLoop> loop;
    TurnLoop& turns = loop->turnLoop();
};

/// A random program of events and alarms that arm, mute, detach and destroy each other, turn the loop
/// within their calls, stop it and throw, some on a clock that is not the thread's. The model knows turns and
/// jumps, not budgets: it tells who is next.
class LoopProgram {
  public:
    explicit LoopProgram(Form form) : loop_(form) {
        for (Slot& slot : slots_) {
            renew(slot);
            slot.arm(1), slot.arm(endOfTime); // queues come in the order of their first use
        }
    }

    void step() {
        change(4);
        for (bool const other : {false, true}) {
            clocks_[other]->autoAdvanceIs(loop_.form == Form::application || !random_.oneIn(4));
            clocks_[other]->nowIs(now_[other] += 0.25 * static_cast<double>(random_.below(3)));
        }
        if (!random_.oneIn(4))
            runNested();
        expectAlike();
    }

  private:
    struct Slot {
        std::function<void(Seconds)> arm; // from now on its clock
        std::function<bool()> isArmed;
        std::function<void(bool)> attach;
        Ptr<Reactor> reactor;
        Ptr<PtrInterface> notifier;
        bool isAlarm = false, onOther = false; // clock
        bool attached = true, goesOn = false;
        Seconds at = endOfTime; // less than any time: in the list of turns
        std::size_t asked = 0, order = 0;
    };
    struct Frame {
        Kind kind;
        Seconds limit;
        std::size_t turn, pops;
    };

    void renew(Slot& slot) {
        forget(slot);
        slot = {};
        slot.isAlarm = loop_.form == Form::carried && &slot < &slots_[6];
        slot.onOther = slot.isAlarm && &slot < &slots_[3];
        Ptr<Clock> const clock = clocks_[slot.onOther];
        auto const call = [this, &slot] { called(slot); };
        if (!slot.isAlarm) {
            auto const event = std::make_shared<EventCall>(loop_.loop, call);
            slot.arm = [event](Seconds delay) { event->in(delay); };
            slot.isArmed = [event] { return event->event->armed(); };
            slot.attach = [event](bool on) { event->reactor->notifierIs(on ? event->event : nullptr); };
            slot.reactor = event->reactor;
            slot.notifier = event->event;
        } else { // whose alarm belongs to the attachment
            Ptr<Alarm> const alarm = new Alarm(clock, call);
            slot.arm = [=](Seconds delay) { alarm->timeMinIs(clock->now() + delay); };
            slot.isArmed = [alarm = alarm.ptr()] { return alarm->timeMin() != endOfTime; };
            slot.attach = [=, this, &slot](bool on) {
                alarm->notifierIs(on ? clock : nullptr), forget(slot);
            };
            slot.reactor = alarm;
            slot.notifier = clock;
        }
    }
    void change(std::size_t limit) {
        constexpr std::array delays{0.0, 0.0, -1.0, 0.25, 0.5, 1.75, 64.0, 1e6, endOfTime};
        for (std::size_t left = random_.below(limit); left > 0; --left) {
            Slot& slot = random_.of(slots_);
            bool const on = !random_.oneIn(3);
            std::size_t const what = random_.below(20);
            random_.doing("change " + std::to_string(what) + " of", static_cast<double>(&slot - &slots_[0]));
            switch (what) {
            case 0: slot.reactor->hasNotificationActiveIs(on); break;
            case 1: slot.reactor->isRegisteredNotifieeIs(on); break;
            case 2: slot.notifier->hasNotificationActiveIs(on); break;
            case 3: slot.reactor->moxDoZombieReactors(random_.oneIn(4)); break;
            case 4: slot.attach(slot.attached = on); break;
            case 5: renew(slot); break;
            case 6: slot.goesOn = random_.oneIn(20); break; // for more than a budget
            default: ask(slot, random_.of(delays));
            }
        }
    }
    static bool isDeaf(Slot const& s) {
        return !s.attached || s.reactor->isZombie() || !s.reactor->isRegisteredNotifiee() ||
               !s.reactor->hasNotificationActive() || !s.notifier->hasNotificationActive();
    }

    void expectAlike() {
        for (Slot const& slot : slots_)
            ASSERT_EQ(slot.at != endOfTime, slot.isArmed());
        for (bool const other : {false, true})
            ASSERT_EQ(now_[other], clocks_[other]->now());
        Seconds const wait = std::min(due(false) - now_[0], due(true) - now_[1]);
        ASSERT_EQ(immediate_.empty() ? std::max(0.0, wait) : 0.0, loop_.turns.nextDue());
        caught_ += std::ranges::count(log_.take(), '\n');
        ASSERT_EQ(thrown_, caught_);
    }

    // The model

    void forget(Slot& slot) {
        std::erase(immediate_, &slot);
        slot.at = endOfTime;
    }
    void ask(Slot& slot, Seconds delay) {
        if (!slot.attached && slot.isAlarm)
            return;
        slot.arm(delay);
        if (delay <= 0 && slot.at < 0)
            return; // keeps its place
        forget(slot);
        slot.order = ++order_;
        slot.at = now_[slot.onOther] + delay;
        if (delay <= 0)
            atNextTurn(slot);
    }
    void atNextTurn(Slot& slot) {
        slot.at = -1;
        slot.asked = turn_;
        immediate_.push_back(&slot);
    }
    void serve() {
        std::map<std::tuple<bool, bool, Seconds, std::size_t>, Slot*> due;
        for (Slot& slot : slots_)
            if (slot.at >= 0 && slot.at <= now_[slot.onOther])
                due[{slot.isAlarm, !slot.onOther, slot.at, slot.order}] = &slot;
        for (auto const& [place, slot] : due)
            atNextTurn(*slot);
    }
    Seconds due(bool onOther) const {
        Seconds due = endOfTime;
        for (Slot const& slot : slots_)
            due = slot.at >= 0 && slot.onOther == onOther ? std::min(due, slot.at) : due;
        return due;
    }
    /// A turn begins, or clocks jump; false when nothing more can happen before the limit, a time of the
    /// thread's clock.
    bool advance(Seconds limit) {
        serve();
        if (!immediate_.empty())
            return ++turn_;
        bool const goesOn = now_[0] < limit;
        bool jumps = false;
        for (bool const other : {false, true}) {
            Seconds const until = std::min(due(other), other ? endOfTime : limit);
            if (goesOn && until != endOfTime && clocks_[other]->autoAdvance())
                now_[other] = until, jumps = true;
        }
        return jumps;
    }
    /// Who is to be called next in the run under way, with the deaf spent before it; null for nobody.
    Slot* next() {
        Frame& frame = frames_.back();
        while (!stopped_) {
            Slot* const first = immediate_.empty() ? nullptr : immediate_[0];
            if (first && first->asked < (frame.kind == once ? frame.turn : turn_)) {
                forget(*first);
                ++frame.pops;
                if (!isDeaf(*first))
                    return first;
            } else if (frame.kind == once || !advance(frame.limit)) {
                return nullptr;
            }
        }
        return nullptr;
    }

    void runNested() {
        // A run nested in an io_context's own has something pending for ever: the handler that it stands in.
        bool const isApplications = loop_.form == Form::application && frames_.empty();
        Kind const kind = isApplications ? run : Kind(random_.below(loop_.form == Form::application ? 2 : 3));
        Seconds const limit =
            kind == until ? now_[0] + 0.25 * static_cast<double>(random_.below(12)) : endOfTime;
        bool const outerStopped = std::exchange(stopped_, false) && !frames_.empty();
        serve();
        turn_ += kind == once;
        frames_.push_back({kind, limit, turn_, 0});
        U64 const counted = loop_.runs(kind, limit);
        EXPECT_EQ(nullptr, next()) << "was not called";
        EXPECT_EQ(kind == once ? frames_.back().pops : 0, counted);
        frames_.pop_back();
        stopped_ = stopped_ || outerStopped;
    }
    void called(Slot& slot) {
        ASSERT_EQ(&slot, next());
        expectAlike();
        if (slot.goesOn && !random_.oneIn(600))
            return ask(slot, 0);
        change(3);
        if (std::size_t const clock = random_.below(12); clock < 2)
            clocks_[clock]->nowIs(now_[clock] += 0.25);
        if (loop_.form != Form::application && random_.oneIn(15))
            stopped_ = true, loop_.turns.stop();
        if (frames_.size() < 4 && random_.oneIn(8))
            runNested();
        if (random_.oneIn(10))
            throw ++thrown_;
    }

    VirtualTime time_;
    std::array<Ptr<VirtualClock>, 2> const clocks_{time_.clock, VirtualClock::VirtualClockIs()};
    std::array<Seconds, 2> now_{};
    Random random_;
    Loop loop_;
    std::array<Slot, 12> slots_;
    std::vector<Slot*> immediate_;
    std::vector<Frame> frames_;
    std::size_t turn_ = 0, order_ = 0;
    std::ptrdiff_t thrown_ = 0, caught_ = 0;
    TraceLog log_{{}, "Mox"};
    bool stopped_ = false;
};

class LoopTest : public testing::TestWithParam<Form> {};

INSTANTIATE_TEST_SUITE_P(Form, LoopTest, testing::Values(Form::attached, Form::application, Form::carried));

TEST_P(LoopTest, CallsWhomTheModelCalls) {
    LoopProgram program(GetParam());
    std::size_t const steps = operations(20'000);
    for (std::size_t step = 0; step < steps && !HasFailure(); ++step)
        program.step();
}

// Calls, or handlers that make themselves ready again and again, have a budget. It ends by time, when the
// clock goes back, and, where time stands still for it, by their number; then the others, timers and a stop
// get their turn.
TEST_P(LoopTest, ServesTimersAndTheOthersAtTheEndOfEachBudgetOfCallsOrHandlers) {
    struct Budget {
        bool ofHandlers;
        std::chrono::nanoseconds perStep; // a call or a handler
        int least, most;                  // steps
    };
    constexpr Budget budgets[] = {
        {false, 1000ns, 10, 25}, {false, 50'000ns, 1, 1}, {false, -1000ns, 1, 1}, {false, 1000ns, 256, 256},
        {true, 1000ns, 11, 11},  {true, 50'000ns, 2, 2},  {true, -1000ns, 2, 2},  {true, 0ns, 256, 256},
    };
    for (Budget const& c : budgets) {
        ManualClock steady;
        Loop loop(GetParam());
        bool const isApplications = loop.form == Form::application;
        if (c.ofHandlers && isApplications)
            continue; // it is the application that turns its io_context
        bool goesOn = true, isPosted = false;
        int looks = 0, steps = 0, looked = 0,
            fired = 0; // by now, at the last look of the others, and when the timer was
        auto const step = [&] {
            if (++steps == 1000)
                steady.advance(20ms); // the timer comes due, if it has not before
            steady.advance(c.perStep);
            if (c.most < 256)
                SteadyClock::now(); // as every task that runs does
            return goesOn && steps < 2000;
        };
        auto const look = [&] {
            int const used = steps - std::exchange(looked, steps);
            EXPECT_TRUE(looks++ <= 1 || used == 0 || steps >= 1000 || (used >= c.least && used <= c.most));
            isPosted = false;
        };
        std::function<void()> const flood = [&] {
            if (step())
                boost::asio::post(loop.turns.ioContext(), flood);
        };
        EventCall call(loop.loop, [&] {
            EXPECT_EQ(0.0, c.ofHandlers ? loop.turns.nextDue() : 0.0);
            if (c.ofHandlers)
                look();
            else if (!std::exchange(isPosted, true))
                boost::asio::post(loop.turns.ioContext(), look);
            if (c.ofHandlers || step())
                call.in(0);
        });
        EventCall timer(loop.loop, [&] {
            fired = steps;
            if (c.ofHandlers)
                loop.turns.stop();
        });
        timer.in(0.01);
        call.in(0);
        if (c.ofHandlers) {
            flood();
            EXPECT_LE(loop.turns.runOnce(), static_cast<U64>(c.most) + 1);
        }
        loop.runs(c.ofHandlers || isApplications ? run : until, now() + 0.015);
        EXPECT_TRUE(isApplications || steps <= 1000 + 2 * c.most) << "it goes on";
        EXPECT_TRUE(fired > 0 && fired <= 1000 + (c.ofHandlers ? 2 : 1) * c.most) << fired;
        EXPECT_GE(looked, steps - c.most);
        EXPECT_TRUE(c.ofHandlers || c.most < 256 || steady.readings() < 50) << "turns read the clock";
        goesOn = false;
        call.in(endOfTime);
        loop.turns.runOnce(); // the thread's loop stays
    }
}

TEST_P(LoopTest, IsThereUntilItsRunEndsThoughACallbackLetsItGo) {
    for (Kind const kind : {once, until, run}) {
        Loop loop(GetParam());
        EventLoop& running = *loop.loop;
        std::unique_ptr<EventCall> call;
        call = std::make_unique<EventCall>(loop.loop, [&] {
            running.stop();
            loop.loop = nullptr;
            call = nullptr;
            EXPECT_EQ(1u, running.references());
        });
        call->in(0);
        if (kind == run && loop.form == Form::application)
            loop.context.run();
        else
            kind == once ? void(running.runOnce()) : kind == until ? running.runUntil(1e10) : running.run();
        EXPECT_FALSE(call);
    }
}

// A set of descriptors that two processes share tells only one of them.
TEST(EventLoop, AForkedChildHasDescriptorsOfItsOwn) {
    Ptr<EventLoop> const first = EventLoop::EventLoopIs();
    Ptr<EventLoop> gone = EventLoop::EventLoopIs(), last = EventLoop::EventLoopIs();
    gone = nullptr;
    for (auto const& loop : {first, last}) {
        boost::asio::local::stream_protocol::socket socket(loop->ioContext()), peer(loop->ioContext());
        boost::asio::local::connect_pair(socket, peer);
        int ready = 0, status = 0;
        socket.async_wait(socket.wait_read, [&](auto) { ++ready; });
        loop->runOnce();
        peer.close();
        pid_t const child = fork();
        EXPECT_EQ(1u, loop->runOnce()) << "handlers count";
        if (child == 0)
            _exit(ready);
        waitpid(child, &status, 0);
        EXPECT_EQ(1, ready * WEXITSTATUS(status));
    }
}

TEST(EventLoop, RefusesWhatIsNoTimeAndACarriedOneAlwaysWaits) {
    VirtualTime time{true};
    time.clock->nowIs(5);
    EXPECT_TRUE(time.clock->idleUntil(3) && !time.clock->idleUntil(endOfTime));
    EXPECT_EQ(5, now()) << "by a loop that waits for what has passed";
    EXPECT_DEATH(EventCall(EventLoop::EventLoopIs(), [] {}).in(NAN), "isnan");
    EXPECT_DEATH(EventLoop::EventLoopIs(time.manager)->runsWhenIdleIs(false),
                 "runsWhenIdle \\|\\| !useMoxEventLoop");
    EXPECT_DEATH(time.manager->runUntil(NAN), "isnan");
    EXPECT_DEATH(time.clock->nowIs(endOfTime), "isfinite");
    EXPECT_DEATH(time.clock->nowIs(0.5), "time >= now_");
}

} // namespace
