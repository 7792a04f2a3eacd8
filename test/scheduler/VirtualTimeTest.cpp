#include <scheduler/TaskSchedulerEventLoop.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <group/TaskGroup.h>
#include <support/ManualClock.h>
#include <support/Random.h>
#include <support/TaskReactors.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

using Kel::TaskPriority;
using Kel::TaskScheduler;
using Kel::TimerTask;
using Mox::Ptr;
using Mox::Seconds;
using TestSupport::OnRun;

constexpr Seconds day = 86400.0;

struct Firing {
    std::size_t task;
    Seconds due;
    Seconds at;

    bool operator==(Firing const&) const = default;
};

Seconds periodOf(std::size_t task) { return 30.0 + static_cast<Seconds>(task) * 1.7853; }

/// A day of timer tasks that re-arm themselves, each with a period of its own, some in a group.
class Day {
  public:
    Day(bool onActivityManager, std::size_t tasks) {
        if (!onActivityManager)
            loop_ = Kel::EventLoop::EventLoopIs();
        Ptr<Kel::TaskSchedulerRoot> root;
        if (loop_)
            root = Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("root", loop_);
        else
            root = Kel::TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");
        auto const group = Kel::TaskGroup::TaskGroupIs("group", TaskPriority::low, false, root);
        timers_.reserve(tasks);
        for (std::size_t i = 0; i < tasks; ++i) {
            Ptr<TaskScheduler> const scheduler = i % 4 == 0 ? Ptr<TaskScheduler>(group) : root;
            auto const priority = TaskPriority::PriorityEnumInstance(static_cast<Mox::U32>(i % 5));
            timers_.push_back(
                {TimerTask::TimerTaskIs(scheduler, priority, std::to_string(i)), nullptr, periodOf(i), 0.0});
            timers_[i].reactor = new OnRun(timers_[i].task, [this, i] { fire(i); });
            arm(i);
        }
    }
    std::vector<Firing> run() {
        loop_ ? loop_->runUntil(day) : time_.manager->runUntil(day);
        EXPECT_EQ(day, Mox::now());
        return std::move(firings_);
    }

  private:
    struct Timer {
        Ptr<TimerTask> task;
        Ptr<OnRun> reactor;
        Seconds period;
        Seconds due;
    };

    void arm(std::size_t i) {
        timers_[i].due = Mox::now() + timers_[i].period;
        timers_[i].task->scheduleTaskDelay(timers_[i].period);
    }
    void fire(std::size_t i) {
        firings_.push_back({i, timers_[i].due, Mox::now()});
        arm(i);
    }

    TestSupport::ManualClock steady_; // runs take no time, or the quantum of the group would count
    TestSupport::VirtualTime time_{true};
    Ptr<Kel::EventLoop> loop_; // null: the activity manager's own
    std::vector<Timer> timers_;
    std::vector<Firing> firings_;
};

/// The times of ticks are multiples of 10 ms.
Seconds firstTickNotBefore(Seconds due) {
    Seconds tick = std::floor(due * 100.0) - 1.0;
    while (tick * 0.01 < due)
        ++tick;
    return tick * 0.01;
}

std::vector<Firing> expectedFirings(std::size_t task, Seconds period) {
    std::vector<Firing> firings;
    for (Seconds due = period, at; (at = firstTickNotBefore(due)) <= day; due = at + period)
        firings.push_back({task, due, at});
    return firings;
}

class VirtualTimeTest : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Root, VirtualTimeTest, testing::Values(false, true),
                         [](auto const& root) { return root.param ? "OnActivityManager" : "OnEventLoop"; });

TEST_P(VirtualTimeTest, ADayOfTimerTasksRunsOnTimeAndTwiceInTheSameOrder) {
    std::size_t const tasks = TestSupport::operations(1000);
    auto const firings = Day(GetParam(), tasks).run();
    EXPECT_TRUE(std::ranges::is_sorted(firings, {}, &Firing::at));
    std::vector<std::vector<Firing>> ofTask(tasks);
    for (Firing const& f : firings)
        ofTask[f.task].push_back(f);
    for (std::size_t i = 0; i < tasks; ++i)
        EXPECT_TRUE(ofTask[i] == expectedFirings(i, periodOf(i))) << "task " << i;
    EXPECT_TRUE(firings == Day(GetParam(), tasks).run());
}

} // namespace
