#include <mox/SteadyClock.h>

#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>
#include <support/TaskReactors.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace Mox {

struct SteadyClockGivesUp {
    static void now(char const* reason) { SteadyClock::giveUp(reason); }
};

} // namespace Mox

namespace {

using namespace TestSupport;
using Source = SteadyClock::Source;

/// What the history tells of tasks that run a thousand times; its stamps do not go back.
std::string historyOfARun() {
    auto const loop = EventLoop::EventLoopIs();
    auto const root = TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop);
    std::vector<Ptr<OnRun>> workers;
    int left = 1000;
    for (U32 const priority : {1u, 2u, 3u}) {
        auto const task = Task::TaskIs(root, TaskPriority::PriorityEnumInstance(priority), "t");
        workers.push_back(new OnRun(task, [&, task = task.ptr()] {
            task->scheduleTask();
            --left > 0 ? void() : loop->stop();
        }));
        task->scheduleTask();
    }
    loop->run();
    std::string text;
    TaskTimeStamp newer = SteadyClock::now();
    for (auto const& event : root->history()) {
        EXPECT_LE(event.timeStamp(), newer);
        newer = event.timeStamp();
        text += event.display() + "\n";
    }
    return text;
}

} // namespace

TEST(SteadyClockRealTime, IsTheSameTimeFromEitherSource) {
    constexpr auto bound = boost::chrono::microseconds(20);
    std::string const history = historyOfARun();
    char const* const asked = std::getenv("KELTASK_CLOCK"); // the program is run with it, too
    bool const wasFast = SteadyClock::source() == Source::counter;
    Problem const problem = SteadyClock::sourceIs(Source::counter);
    EXPECT_EQ(SteadyClock::source(), problem.empty() ? Source::counter : Source::posix);
    EXPECT_EQ(wasFast, asked && problem.empty());
    if (!problem.empty())
        GTEST_SKIP() << problem; // as under sanitizers, which interpose the clock
    for (auto const source : {Source::counter, Source::posix}) {
        ASSERT_EQ(SteadyClock::sourceIs(source), "");
        auto latest = SteadyClock::now();
        for (int i = 0; i < 300'000; ++i) {
            auto const before = boost::chrono::steady_clock::now();
            auto const reading = SteadyClock::now();
            auto const behind = boost::chrono::steady_clock::now();
            ASSERT_LE(latest, reading);
            ASSERT_TRUE(before - bound < reading && reading < behind + bound);
            latest = reading;
        }
        EXPECT_EQ(SteadyClock::latest(), latest);
        EXPECT_EQ(SteadyClock::source(), source) << "nothing was given up";
        EXPECT_EQ(history, historyOfARun());
    }
}

TEST(SteadyClockDeathTest, GivesTheCounterUpForGoodAndSaysSoWhenTheLoopPolls) {
    Source const source = SteadyClock::source();
    if (Problem const problem = SteadyClock::sourceIs(Source::counter); !problem.empty())
        GTEST_SKIP() << problem;
    ASSERT_EQ(SteadyClock::sourceIs(source), ""); // this process goes on
    auto const giveUp = [] {
        EXPECT_EQ(SteadyClock::sourceIs(Source::counter), "");
        auto const loop = EventLoop::EventLoopIs();
        auto const before = SteadyClock::now();
        SteadyClockGivesUp::now("it departs");
        SteadyClockGivesUp::now("again");
        bool const isRight =
            SteadyClock::source() == Source::posix && SteadyClock::now() >= before &&
            SteadyClock::sourceIs(Source::counter) == "the time-stamp counter was given up before";
        std::cerr << "polls" << std::endl;
        loop->runOnce(), loop->runOnce();
        std::cerr << "twice" << std::endl;
        std::exit(isRight && SteadyClock::source() == Source::posix ? 0 : 1);
    };
    EXPECT_EXIT(giveUp(), testing::ExitedWithCode(0), "polls\n[^\n]*SteadyClock[^\n]* it departs\ntwice\n$");
}
