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
#include <memory>
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
        reader.async_read_some(boost::asio::buffer(&byte, 1),
                               [this](boost::system::error_code error, std::size_t) { hasRead = !error; });
    }
    bool readsWhatIsWritten(Mox::TurnLoop& loop) {
        writer.write_some(boost::asio::buffer("x", 1));
        for (int turn = 0; turn < 3; ++turn)
            loop.runOnce();
        return hasRead;
    }
    char byte = 0;
    bool hasRead = false;
    boost::asio::readable_pipe reader;
    boost::asio::writable_pipe writer;
};

TEST(Fork, BothProcessesGoOnWithDescriptorsOfTheirOwn) {
    Mox::TurnLoop loop;
    Pipe pipe(loop.ioContext());
    loop.runOnce();
    pid_t const child = fork();
    if (child == 0) { // drops the inherited descriptor, and reads one of its own
        pipe.reader.close();
        Pipe own(loop.ioContext());
        _exit(own.readsWhatIsWritten(loop) && !pipe.hasRead ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_TRUE(pipe.readsWhatIsWritten(loop));
}

// The owner is made before the thread's manager, and so goes after it: as a root in a global variable.
TEST(ThreadsEnd, ManagerAndTimeCanStillBeUsedWhetherOrNotSomebodyHoldsThem) {
    for (bool const isHeld : {true, false}) {
        int calls = 0;
        Seconds read = 0;
        std::thread([&] {
            static thread_local std::shared_ptr<void> owner;
            Ptr<Alarm> const alarm = new Alarm(Mox::activityManager()->config()->clock(), [&] { ++calls; });
            alarm->timeMinIs(1e9);
            owner = {nullptr, [&, held = isHeld ? alarm : nullptr](void*) {
                         read = Mox::now();
                         if (held)
                             held->timeMinIs(0);
                         Mox::activityManager()->runOnce();
                     }};
        }).join();
        EXPECT_GT(read, 0);
        EXPECT_EQ(isHeld ? 1 : 0, calls);
    }
}

TEST(ClockDeathTest, AssertsOnTimesThatCannotBe) {
    TestSupport::VirtualTime time;
    time.clock->nowIs(5);
    EXPECT_DEATH(time.clock->nowIs(4), "time >= now_");
    Ptr<Alarm> const alarm = new Alarm(Ptr<Mox::Clock>(time.clock), [] {});
    EXPECT_DEATH(alarm->timeMinIs(std::nan("")), "!std::isnan\\( time \\)");
}

} // namespace
