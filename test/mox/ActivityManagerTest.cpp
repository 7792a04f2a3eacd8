#include <mox/ActivityManager.h>

#include <mox/TurnLoop.h>

#include <support/Calls.h>
#include <support/ManualClock.h>
#include <support/VirtualTime.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect_pipe.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/readable_pipe.hpp>
#include <boost/asio/writable_pipe.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Mox::Ptr;
using Mox::Seconds;

using Alarm = TestSupport::TimerCall<Mox::Clock::NotifieeConst>;

/// Alarms by name, which write down their name and the time when they are called.
struct ActivityManagerTest : testing::Test {
    Alarm& at(char name, Seconds time, std::function<void()> then = {}) {
        alarms[name] = new Alarm(Ptr<Mox::Clock>(virtualTime.clock), [this, name, then] {
            order += name;
            times.push_back(Mox::now());
            if (then)
                then();
        });
        alarms[name]->timeMinIs(time);
        return *alarms[name];
    }

    TestSupport::VirtualTime virtualTime{true};
    Mox::VirtualClock& clock = *virtualTime.clock;
    Ptr<Mox::ActivityManager> const manager = virtualTime.manager;
    std::string order;
    std::vector<Seconds> times;
    std::map<char, Ptr<Alarm>> alarms;
};

TEST_F(ActivityManagerTest, RunJumpsFromAlarmToAlarmAndEndsWhenNothingIsPending) {
    at('d', 86400);
    at('b', 1.5);
    at('c', 1.5); // at the same time, but asked for later
    at('a', 0.25);
    manager->run();
    EXPECT_EQ("abcd", order);
    EXPECT_THAT(times, testing::ElementsAre(0.25, 1.5, 1.5, 86400));
    EXPECT_EQ(Mox::endOfTime, manager->nextDue());
}

TEST_F(ActivityManagerTest, WhatReArmsItselfRunsOnTheNextTurn) {
    at('a', 0, [this] { alarms['a']->timeMinIs(0); });
    at('b', 0);
    EXPECT_EQ(2u, manager->runOnce());
    EXPECT_EQ(1u, manager->runOnce());
    EXPECT_EQ(1u, manager->runOnce());
    EXPECT_EQ("abaa", order);
}

TEST_F(ActivityManagerTest, AlarmIsCalledOnceAtTheFirstTurnAtWhichItIsDue) {
    Alarm& a = at('a', 2, [this] { EXPECT_EQ(Mox::endOfTime, alarms['a']->timeMin()); });
    a.timeMinIs(1); // replaces
    at('b', 1).timeMinIs(Mox::endOfTime);
    at('c', 1).hasNotificationActiveIs(false);
    at('d', 1).notifierIs(nullptr);
    clock.nowIs(std::nextafter(1.0, 0.0));
    EXPECT_EQ(0u, manager->runOnce());
    EXPECT_GT(manager->nextDue(), 0.0);
    clock.nowIs(1);
    manager->runOnce();
    EXPECT_EQ("a", order);
    alarms['c']->hasNotificationActiveIs(true); // it was spent while it was muted
    clock.nowIs(3);
    EXPECT_EQ(0u, manager->runOnce());
}

TEST_F(ActivityManagerTest, ClockThatIsNotInstalledHasItsAlarmsToo) {
    EXPECT_EQ(Mox::endOfTime, manager->nextDue());
    Ptr<Mox::VirtualClock> const other = Mox::VirtualClock::VirtualClockIs();
    Ptr<Alarm> const alarm = new Alarm(Ptr<Mox::Clock>(other), [this] { order += '!'; });
    at('a', 7);
    EXPECT_EQ(7.0, manager->nextDue());
    alarm->timeMinIs(3);
    EXPECT_EQ(3.0, manager->nextDue());
    manager->run(); // the other clock stands still
    EXPECT_EQ("a", order);
    other->nowIs(3);
    EXPECT_EQ(0.0, manager->nextDue());
    manager->run();
    EXPECT_EQ("a!", order);
}

TEST_F(ActivityManagerTest, RunUntilDoesWhatIsDueByThenAndNoMore) {
    at('a', 5);
    at('b', 10, [this] { at('c', 0); });
    at('z', 10.5);
    manager->runUntil(10);
    EXPECT_EQ("abc", order);
    EXPECT_THAT(times, testing::ElementsAre(5, 10, 10));
    EXPECT_EQ(10.0, clock.now());
}

/// A pending call of the loop that goes by the thread's clock, as timer events do.
struct Call : Mox::Wakeup {
    Call(Mox::TurnLoop& loop, std::function<void()> function) : Wakeup(loop), call(std::move(function)) {}
    void onWakeup() override { call(); }
    std::function<void()> const call;
};

// The installed clock serves both alarms, which name it, and timers, which follow whichever is installed.
TEST_F(ActivityManagerTest, ClockJumpsToTheEarliestOfItsAlarmsAndOfTheTimersThatFollowIt) {
    Call timer(manager->turnLoop(), [this] { order += 't', times.push_back(Mox::now()); });
    timer.at(2);
    at('a', 1);
    at('b', 3);
    manager->runUntil(10);
    EXPECT_EQ("atb", order);
    EXPECT_THAT(times, testing::ElementsAre(1, 2, 3));
}

TEST_F(ActivityManagerTest, StopEndsTheRunAfterThePresentCallback) {
    at('a', 1, [this] { manager->stop(); });
    at('b', 1);
    at('c', 2);
    manager->run();
    EXPECT_EQ("a", order);
    EXPECT_EQ(0.0, manager->nextDue());
    manager->run();
    EXPECT_EQ("abc", order);
}

TEST_F(ActivityManagerTest, TurnsNestInACallbackAndCallNobodyTwice) {
    at('a', 0, [this] {
        at('d', 0);
        order += '(';
        EXPECT_EQ(3u, manager->runOnce());
        order += ')';
    });
    at('b', 0);
    at('c', 0);
    EXPECT_EQ(1u, manager->runOnce());
    EXPECT_EQ("a(bcd)", order);
    EXPECT_EQ(0u, manager->runOnce());
}

/// A pipe whose reading end is on a loop.
struct Pipe {
    explicit Pipe(boost::asio::io_context& context) : reader(context), writer(context) {
        boost::asio::connect_pipe(reader, writer);
    }
    void write() { writer.write_some(boost::asio::buffer("x", 1)); }
    void onReadable(std::function<void()> call) {
        reader.async_read_some(boost::asio::buffer(&byte, 1),
                               [call](boost::system::error_code error, std::size_t) {
                                   if (!error)
                                       call();
                               });
    }
    char byte = 0;
    boost::asio::readable_pipe reader;
    boost::asio::writable_pipe writer;
};

// The budget of a busy loop ends by time, when the clock goes back, and, where it seems to stand still, by
// the number of turns.
TEST(BusyLoop, ServesTimersAndDescriptorsWhateverTheClockDoes) {
    struct {
        std::chrono::nanoseconds perTurn;
        bool isRead;
        int budgetTurns;
    } const cases[] = {
        {1000ns, true, 25}, {50'000ns, true, 1}, {-1000ns, true, 1}, {0ns, true, 256}, {1000ns, false, 256}};
    for (auto const& c : cases) {
        SCOPED_TRACE(c.perTurn.count());
        TestSupport::ManualClock steady;
        Mox::TurnLoop loop;
        Pipe pipe(loop.ioContext());
        int turns = 0, read = 0, fired = 0; // by now, and at which turn
        Call timer(loop, [&] { fired = turns; });
        timer.in(0.01);
        pipe.onReadable([&] { read = turns; });
        std::optional<Call> busy;
        busy.emplace(loop, [&] {
            if (++turns == 541)
                pipe.write();
            if (turns == 1000)
                steady.advance(20ms); // the timer comes due, if it has not before
            steady.advance(c.perTurn);
            if (c.isRead)
                Mox::SteadyClock::now(); // as every task that runs does
            if (turns == 2000)
                loop.stop();
            busy->atNextTurn();
        });
        busy->atNextTurn();
        loop.run(false);
        EXPECT_TRUE(read >= 541 && read <= 541 + c.budgetTurns) << read;
        EXPECT_TRUE(fired > 0 && fired <= 1000 + c.budgetTurns) << fired;
    }
}

TEST(BusyLoop, TurnReadsNoClockOfItsOwn) {
    TestSupport::ManualClock steady;
    Mox::TurnLoop loop;
    int turns = 0;
    std::optional<Call> busy;
    busy.emplace(loop, [&] {
        if (++turns == 10'000)
            loop.stop();
        busy->atNextTurn();
    });
    Call later(loop, [] {});
    later.in(1000);
    busy->atNextTurn();
    loop.run(false);
    EXPECT_LT(steady.readings(), 10'000u / 100);
}

TEST(Fork, BothProcessesGoOnWithDescriptorsOfTheirOwn) {
    Mox::TurnLoop loop;
    Pipe pipe(loop.ioContext());
    bool readable = false;
    pipe.onReadable([&] { readable = true; });
    loop.runOnce();

    pid_t const child = fork();
    if (child == 0) { // drops the inherited descriptor, and reads one of its own
        pipe.reader.close();
        Pipe own(loop.ioContext());
        bool ownReadable = false;
        own.onReadable([&] { ownReadable = true; });
        own.write();
        for (int turn = 0; turn < 3; ++turn)
            loop.runOnce();
        _exit(ownReadable && !readable ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    pipe.write();
    for (int turn = 0; turn < 3; ++turn)
        loop.runOnce();
    EXPECT_TRUE(readable);
}

/// Made before the thread's manager, and so destroyed after it has let go: as a root in a global variable.
struct LateOwner {
    ~LateOwner() {
        if (atEnd)
            atEnd();
    }
    Ptr<Alarm> alarm;
    std::function<void()> atEnd;
};

TEST(ThreadsEnd, WhatUsesTheManagerMayOutliveTheThreadsLocals) {
    int calls = 0;
    std::thread([&] {
        static thread_local LateOwner owner;
        owner.atEnd = [&] {
            owner.alarm->timeMinIs(0);
            Mox::activityManager()->runOnce();
            Mox::now();
        };
        owner.alarm = new Alarm(Ptr<Mox::Clock>(Mox::activityManager()->config()->clock()), [&] { ++calls; });
        owner.alarm->timeMinIs(1e9);
    }).join();
    EXPECT_EQ(1, calls);
}

TEST(ThreadsEnd, TimeCanStillBeReadWhenNothingUsesTheManager) {
    Seconds read = 0;
    std::thread([&] {
        static thread_local LateOwner owner;
        owner.atEnd = [&] { read = Mox::now(); };
        Mox::now();
    }).join();
    EXPECT_GT(read, 0);
}

TEST(ClockDeathTest, AssertsOnTimesThatCannotBe) {
    TestSupport::VirtualTime time;
    time.clock->nowIs(5);
    EXPECT_DEATH(time.clock->nowIs(4), "time >= now_");
    EXPECT_DEATH(time.clock->nowIs(Mox::endOfTime), "std::isfinite\\( time \\)");
    Ptr<Alarm> const alarm = new Alarm(Ptr<Mox::Clock>(time.clock), [] {});
    EXPECT_DEATH(alarm->timeMinIs(std::nan("")), "!std::isnan\\( time \\)");
    alarm->notifierIs(nullptr);
    EXPECT_DEATH(alarm->timeMinIs(1), "notifier\\(\\)");
}

} // namespace
