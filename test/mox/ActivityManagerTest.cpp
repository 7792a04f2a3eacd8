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
#include <gtest/gtest.h>

#include <cmath>
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

TEST(ActivityManager, ServesTheAlarmsOfEveryClockThatAreNotMutedUntilNothingCanHappen) {
    TestSupport::VirtualTime const time(true);
    Ptr<Mox::VirtualClock> const other = Mox::VirtualClock::VirtualClockIs();
    std::string order;
    auto const at = [&](char name, Seconds due, Ptr<Mox::Clock> const& clock) {
        Ptr<Alarm> const alarm = new Alarm(clock, [&order, name] { order += name; });
        alarm->timeMinIs(due);
        return alarm;
    };
    EXPECT_EQ(Mox::endOfTime, time.manager->nextDue());
    auto const a = at('a', 86400, time.clock), b = at('b', 3, other);
    auto const muted = at('m', 5, time.clock), moved = at('n', 5, time.clock);
    muted->hasNotificationActiveIs(false);
    moved->notifierIs(other); // disarmed
    EXPECT_EQ(3.0, time.manager->nextDue());
    time.manager->run(); // the other clock stands still
    EXPECT_EQ("a", order);
    EXPECT_EQ(86400, Mox::now());
    muted->hasNotificationActiveIs(true); // it was spent while it was muted
    other->nowIs(3);
    EXPECT_EQ(0.0, time.manager->nextDue());
    time.manager->run();
    EXPECT_EQ("ab", order);
    EXPECT_EQ(Mox::endOfTime, muted->timeMin());
}

/// A pending call of the loop that goes by the thread's clock, as timer events do.
struct Call : Mox::Wakeup {
    Call(Mox::TurnLoop& loop, std::function<void()> function) : Wakeup(loop), call(std::move(function)) {}
    void onWakeup() override { call(); }
    std::function<void()> const call;
};

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
        if (!c.isRead) {
            EXPECT_LT(steady.readings(), 2000u / 100) << "turns read the clock";
        }
    }
}

TEST(Fork, BothProcessesGoOnWithDescriptorsOfTheirOwn) {
    Mox::TurnLoop loop;
    bool readable = false, ownReadable = false;
    auto const write = [&loop](Pipe& pipe) {
        pipe.write();
        for (int turn = 0; turn < 3; ++turn)
            loop.runOnce();
    };
    Pipe pipe(loop.ioContext());
    pipe.onReadable([&] { readable = true; });
    loop.runOnce();
    pid_t const child = fork();
    if (child == 0) { // drops the inherited descriptor, and reads one of its own
        pipe.reader.close();
        Pipe own(loop.ioContext());
        own.onReadable([&] { ownReadable = true; });
        write(own);
        _exit(ownReadable && !readable ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    write(pipe);
    EXPECT_TRUE(readable);
}

/// Made before the thread's manager, and so destroyed after it has let go: as a root in a global variable.
struct LateOwner {
    ~LateOwner() { atEnd(); }
    std::function<void()> atEnd;
};

TEST(ThreadsEnd, ManagerAndTimeCanStillBeUsedWhetherOrNotSomebodyHoldsThem) {
    for (bool const isHeld : {true, false}) {
        int calls = 0;
        Seconds read = 0;
        std::thread([&] {
            static thread_local LateOwner owner;
            Ptr<Alarm> const alarm = new Alarm(Mox::activityManager()->config()->clock(), [&] { ++calls; });
            alarm->timeMinIs(1e9);
            owner.atEnd = [&, held = isHeld ? alarm : nullptr] {
                read = Mox::now();
                if (held)
                    held->timeMinIs(0), Mox::activityManager()->runOnce();
            };
        }).join();
        EXPECT_GT(read, 0);
        EXPECT_EQ(isHeld ? 1 : 0, calls);
    }
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
