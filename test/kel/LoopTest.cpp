#include <mox/ActivityManager.h>
#include <mox/TraceHandle.h>
#include <mox/TurnLoop.h>

#include <support/Calls.h>
#include <support/ManualClock.h>
#include <support/Random.h>
#include <support/VirtualTime.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <set>

namespace {

using namespace std::chrono_literals;
using Kel::EventLoop;
using Mox::Ptr;
using Mox::Seconds;
using TestSupport::EventCall;
using Alarm = TestSupport::TimerCall<Mox::Clock::NotifieeConst>;

/// The loops there are; one in an io_context is turned by its own functions, or by the application.
enum class Form { manager, own, attached, application, carried };

struct Loop {
    explicit Loop(Form f)
        : form(f), loop(f == Form::manager   ? nullptr
                        : f == Form::own     ? EventLoop::EventLoopIs()
                        : f == Form::carried ? EventLoop::EventLoopIs(manager)
                                             : EventLoop::EventLoopIs(context)) {}
    void run() {
        if (form == Form::application)
            context.restart(), context.run();
        else // the loop's own would wait when it is carried
            loop&& form != Form::carried ? loop->run() : manager->run();
    }
    void runUntil(Seconds time) {
        loop&& form != Form::carried ? loop->runUntil(time) : manager->runUntil(time);
    }
    bool hasAlarms() const { return form == Form::manager || form == Form::carried; }
    Mox::TurnLoop& turns() { return loop ? loop->turnLoop() : manager->turnLoop(); }

    Form const form;
    Ptr<Mox::ActivityManager> const manager = Mox::activityManager();
    boost::asio::io_context context;
    Ptr<EventLoop> loop;
};

/// A plain call of a loop.
struct Call : Mox::Wakeup {
    Call(Mox::TurnLoop& loop, Ptr<Mox::Clock> const& clock, std::function<void()> function)
        : Wakeup(loop, clock), call(std::move(function)) {}
    void onWakeup() override { call(); }
    std::function<void()> const call;
};

/// A random program of timers on two clocks that arm, mute, detach and destroy each other, turn the loop
/// within their calls, stop it and throw. The model knows turns and jumps, not budgets: it tells who is next.
class LoopProgram {
  public:
    explicit LoopProgram(Form form) : loop_(form) {
        Mox::TraceHandle::traceHandle("Mox").sinkIs([this](auto&) { ++caught_; });
        for (Slot& slot : slots_) {
            renew(slot);
            slot.arm(1), slot.arm(Mox::endOfTime); // queues come in the order of their first use
        }
    }
    ~LoopProgram() { Mox::TraceHandle::traceHandle("Mox").sinkIs(nullptr); }

    void step() {
        for (std::size_t changes = random_.below(4); changes > 0; --changes)
            change();
        for (std::size_t c : {0u, 1u}) {
            clocks_[c]->autoAdvanceIs(loop_.form == Form::application || !random_.oneIn(4));
            clocks_[c]->nowIs(now_[c] += 0.25 * static_cast<double>(random_.below(3)));
        }
        if (!random_.oneIn(4))
            runNested();
        for (Slot const& slot : slots_)
            ASSERT_EQ(slot.at != Mox::endOfTime, slot.armed());
        Seconds const due = std::min(dueOn(0) - now_[0], dueOn(1) - now_[1]);
        ASSERT_EQ(immediate_.empty() ? std::max(0.0, due) : 0.0, loop_.turns().nextDue());
        ASSERT_EQ(thrown_, caught_);
    }
    std::size_t calls() const { return calls_; }

  private:
    enum Kind { once, until, run };
    struct Slot {
        std::function<void(Seconds)> arm; // from now on its clock
        std::function<bool()> armed;
        std::function<void(bool)> attach;
        Ptr<Mox::Reactor> reactor; // none has a plain call
        Ptr<Mox::PtrInterface> notifier;
        std::size_t queue = 0, clock = 0; // the thread's clock, that clock by name, the other
        bool attached = true;
        int again = 0;
        Seconds at = Mox::endOfTime; // less than any time: in the list of turns
        std::size_t asked = 0, order = 0;
    };
    struct Frame {
        Kind kind;
        Seconds limit;
        std::size_t turn, pops;
    };
    struct InOrder {
        bool operator()(Slot* a, Slot* b) const {
            return std::tuple(a->queue, a->at, a->order) < std::tuple(b->queue, b->at, b->order);
        }
    };

    void renew(Slot& slot) {
        forget(slot);
        std::size_t const i = static_cast<std::size_t>(&slot - slots_.data());
        slot = {};
        slot.queue = loop_.hasAlarms() ? (loop_.loop ? i % 3 : 1 + i % 2) : i % 3 == 1 ? 2 : 0;
        slot.clock = slot.queue == 2;
        Ptr<Mox::Clock> const clock = clocks_[slot.clock];
        auto const call = [this, &slot] { called(slot); };
        if (slot.queue == 0) {
            auto const event = std::make_shared<EventCall>(loop_.loop, call);
            slot.arm = [event](Seconds delay) { event->in(delay); };
            slot.armed = [event] { return event->event->armed(); };
            slot.attach = [event](bool on) { event->reactor->notifierIs(on ? event->event : nullptr); };
            slot.reactor = event->reactor;
            slot.notifier = event->event;
        } else if (loop_.hasAlarms()) {
            Ptr<Alarm> const alarm = new Alarm(clock, call);
            slot.arm = [=](Seconds delay) { alarm->timeMinIs(clock->now() + delay); };
            slot.armed = [=] { return alarm->timeMin() != Mox::endOfTime; };
            slot.attach = [=](bool on) { alarm->notifierIs(on ? clock : nullptr); };
            slot.reactor = alarm;
            slot.notifier = clock;
        } else {
            auto const plain = std::make_shared<Call>(loop_.turns(), clock, call);
            slot.arm = [=](Seconds delay) { delay > 1 ? plain->at(clock->now() + delay) : plain->in(delay); };
            slot.armed = [=] { return plain->pending(); };
        }
    }
    void change() {
        Slot& slot = slots_[random_.below(slots_.size())];
        bool const on = !random_.oneIn(3);
        std::size_t const what = random_.below(slot.reactor ? 20 : 12);
        if (what == 0) {
            renew(slot);
        } else if (what < 12 && (slot.attached || slot.queue == 0)) {
            constexpr std::array delays{0.0, 0.0, -1.0, 0.25, 0.5, 1.75, 64.0, 1e6, Mox::endOfTime};
            Seconds const delay = delays[random_.below(delays.size())];
            slot.again = delay == 0 && random_.oneIn(200) ? 600 : 0; // more than a budget
            ask(slot, delay);
        } else if (what == 12) {
            slot.reactor->hasNotificationActiveIs(on);
        } else if (what == 13) {
            slot.reactor->isRegisteredNotifieeIs(on);
        } else if (what == 14) {
            slot.notifier->hasNotificationActiveIs(on);
        } else if (what == 15) {
            slot.reactor->moxDoZombieReactors(random_.oneIn(4));
        } else if (what == 16) {
            slot.attach(slot.attached = on);
            if (slot.queue != 0)
                forget(slot); // an alarm belongs to the attachment
        }
    }
    static bool isDeaf(Slot const& s) {
        return s.reactor && (!s.attached || s.reactor->isZombie() || !s.reactor->isRegisteredNotifiee() ||
                             !s.reactor->hasNotificationActive() || !s.notifier->hasNotificationActive());
    }

    // The model

    void forget(Slot& slot) {
        timed_.erase(&slot);
        std::erase(immediate_, &slot);
        slot.at = Mox::endOfTime;
    }
    void ask(Slot& slot, Seconds delay) {
        slot.arm(delay);
        if (delay <= 0 && slot.at < 0)
            return; // keeps its place
        forget(slot);
        slot.order = ++order_;
        if (delay <= 0)
            atNextTurn(slot);
        else if (delay != Mox::endOfTime)
            slot.at = now_[slot.clock] + delay, timed_.insert(&slot);
    }
    void atNextTurn(Slot& slot) {
        slot.at = -1;
        slot.asked = turn_;
        immediate_.push_back(&slot);
    }
    void serve() {
        for (Slot* slot : std::vector(timed_.begin(), timed_.end()))
            if (slot->at <= now_[slot->clock])
                timed_.erase(slot), atNextTurn(*slot);
    }
    Seconds dueOn(std::size_t clock) const {
        Seconds due = Mox::endOfTime;
        for (Slot* slot : timed_)
            due = slot->clock == clock ? std::min(due, slot->at) : due;
        return due;
    }
    /// A turn begins, or clocks jump; false when nothing more can happen before the limit.
    bool advance(Seconds limit) {
        serve();
        if (!immediate_.empty())
            return ++turn_;
        bool jumped = false;
        for (std::size_t c = 0; c < 2 && (now_[0] < limit || jumped); ++c) {
            Seconds const due = std::min(dueOn(c), c == 0 ? limit : Mox::endOfTime);
            if (due != Mox::endOfTime && clocks_[c]->autoAdvance())
                jumped = true, now_[c] = due;
        }
        return jumped;
    }
    /// Who is to be called next in the run under way, with the deaf spent before it; null for nobody.
    Slot* next() {
        Frame& frame = frames_.back();
        while (!stopped_) {
            if (immediate_.empty() || immediate_[0]->asked >= (frame.kind == once ? frame.turn : turn_)) {
                if (frame.kind == once || !advance(frame.limit))
                    return nullptr;
                continue;
            }
            Slot* const first = immediate_[0];
            forget(*first);
            ++frame.pops;
            if (!isDeaf(*first))
                return first;
        }
        return nullptr;
    }

    void runNested() {
        // A run nested in an io_context's own has something pending for ever: the handler that it stands in.
        bool const isApplications = loop_.form == Form::application && frames_.empty();
        Kind const kind = isApplications ? run : Kind(random_.below(loop_.form == Form::application ? 2 : 3));
        Seconds const limit =
            kind == until ? now_[0] + 0.25 * static_cast<double>(random_.below(12)) : Mox::endOfTime;
        bool const outerStopped = std::exchange(stopped_, false) && !frames_.empty();
        serve();
        turn_ += kind == once;
        frames_.push_back({kind, limit, turn_, 0});
        std::size_t const posts = isApplications ? 0 : random_.below(3);
        for (std::size_t i = 0; i < posts; ++i)
            boost::asio::post(loop_.turns().ioContext(), [] {});
        std::size_t counted = 0;
        kind == once  ? void(counted = loop_.turns().runOnce())
        : kind == run ? loop_.run()
                      : loop_.runUntil(limit);
        EXPECT_EQ(nullptr, next()) << "was not called";
        if (kind == once) {
            EXPECT_EQ(frames_.back().pops + posts, counted);
        }
        EXPECT_EQ(now_, (std::array{clocks_[0]->now(), clocks_[1]->now()}));
        frames_.pop_back();
        stopped_ = stopped_ || outerStopped;
    }
    void called(Slot& slot) {
        ++calls_;
        ASSERT_EQ(&slot, next());
        ASSERT_EQ(now_[slot.clock], clocks_[slot.clock]->now());
        ASSERT_FALSE(slot.armed()) << "within its own call";
        if (slot.again > 0) {
            --slot.again;
            return ask(slot, 0);
        }
        bool const throws = slot.reactor && random_.oneIn(10);
        for (std::size_t changes = random_.below(3); changes > 0; --changes)
            change();
        if (random_.oneIn(6))
            clocks_[0]->nowIs(now_[0] += 0.25);
        if (loop_.form != Form::application && random_.oneIn(15))
            stopped_ = true, loop_.turns().stop();
        if (frames_.size() < 4 && random_.oneIn(8))
            runNested();
        thrown_ += throws;
        if (throws)
            throw 1;
    }

    TestSupport::VirtualTime time_;
    std::array<Ptr<Mox::VirtualClock>, 2> const clocks_{time_.clock, Mox::VirtualClock::VirtualClockIs()};
    std::array<Seconds, 2> now_{};
    TestSupport::Random random_;
    Loop loop_;
    std::array<Slot, 12> slots_;
    std::set<Slot*, InOrder> timed_;
    std::vector<Slot*> immediate_;
    std::vector<Frame> frames_;
    std::size_t turn_ = 0, order_ = 0, calls_ = 0, thrown_ = 0, caught_ = 0;
    bool stopped_ = false;
};

class LoopTest : public testing::TestWithParam<Form> {};

INSTANTIATE_TEST_SUITE_P(Form, LoopTest,
                         testing::Values(Form::manager, Form::own, Form::attached, Form::application,
                                         Form::carried));

TEST_P(LoopTest, CallsWhomTheModelCalls) {
    LoopProgram program(GetParam());
    std::size_t const steps = TestSupport::operations(20'000);
    for (std::size_t step = 0; step < steps && !HasFailure(); ++step)
        program.step();
    EXPECT_GT(program.calls(), steps / 8);
}

// The budget of a busy loop ends by time, when the clock goes back, and, where it seems to stand still, by
// the number of turns; then timers and descriptors are served.
TEST_P(LoopTest, ServesTimersAndDescriptorsAtTheEndOfEachBudget) {
    struct {
        std::chrono::nanoseconds perTurn;
        bool isRead;
        int least, most; // turns in a budget
    } const cases[] = {{1000ns, true, 10, 25},
                       {50'000ns, true, 1, 1},
                       {-1000ns, true, 1, 1},
                       {0ns, true, 256, 256},
                       {1000ns, false, 256, 256}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.perTurn.count());
        TestSupport::ManualClock steady;
        Loop loop(GetParam());
        int turns = 0, polled = 0, fired = 0; // by now, and at which turn
        Call timer(loop.turns(), nullptr, [&] { fired = turns; });
        Call busy(loop.turns(), nullptr, [&] {
            boost::asio::post(loop.turns().ioContext(), [&] {
                if (polled > 0 && turns > polled && turns < 1000) {
                    EXPECT_TRUE(turns - polled >= c.least && turns - polled <= c.most) << turns - polled;
                }
                polled = turns;
            });
            if (++turns == 1000)
                steady.advance(20ms); // the timer comes due, if it has not before
            steady.advance(c.perTurn);
            if (c.isRead)
                Mox::SteadyClock::now(); // as every task that runs does
            if (turns < 2000)
                busy.atNextTurn();
        });
        timer.in(0.01);
        busy.atNextTurn();
        loop.form == Form::application ? loop.run() : loop.runUntil(Mox::now() + 0.015);
        EXPECT_TRUE(loop.form == Form::application || turns <= 1000 + 2 * c.most) << "it goes on";
        EXPECT_TRUE(fired > 0 && fired <= 1000 + c.most) << fired;
        EXPECT_GE(polled, turns - c.most);
        EXPECT_TRUE(c.isRead || steady.readings() < 50) << "turns read the clock";
        busy.cancel();
        loop.turns().runOnce(); // the handlers that were posted last
    }
}

TEST_P(LoopTest, IsThereUntilItsRunEndsThoughACallbackLetsItGo) {
    for (int const way : {0, 1, 2}) {
        TestSupport::VirtualTime const time(true);
        Loop loop(GetParam());
        EventLoop* const running = loop.loop.ptr();
        if (!running)
            return; // a thread's manager stays with the thread
        std::unique_ptr<EventCall> call;
        call = std::make_unique<EventCall>(loop.loop, [&] {
            running->stop();
            loop.loop = nullptr;
            call = nullptr;
            EXPECT_EQ(1u, running->references());
        });
        call->in(0);
        if (loop.form == Form::application)
            loop.run();
        else
            way == 0 ? running->run() : way == 1 ? running->runUntil(1) : void(running->runOnce());
        EXPECT_FALSE(call);
    }
}

TEST(LoopDeathTest, AssertsOnWhatCannotBe) {
    Loop loop(Form::carried);
    Call call(loop.turns(), nullptr, [] {});
    EXPECT_DEATH(call.at(std::nan("")), "!std::isnan\\( time \\), source Wakeup");
    EXPECT_DEATH(call.in(std::nan("")), "!std::isnan\\( delay \\), source Wakeup");
    EXPECT_DEATH(loop.runUntil(std::nan("")), "!std::isnan\\( time \\), source TurnLoop");
    EXPECT_DEATH(loop.loop->runsWhenIdleIs(false),
                 "runsWhenIdle \\|\\| !useMoxEventLoop\\(\\), source EventLoop");
}

} // namespace
