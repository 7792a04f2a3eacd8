#include <mox/ActivityManager.h>

#include <mox/TurnLoop.h>

#include <support/Calls.h>
#include <support/VirtualTime.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect_pipe.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/readable_pipe.hpp>
#include <boost/asio/writable_pipe.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Mox::Ptr;
using Mox::Seconds;

using Alarm = TestSupport::TimerCall<Mox::Clock::NotifieeConst>;

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
