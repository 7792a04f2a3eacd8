#include <task/TimerTask.h>

#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>

namespace {

using namespace std::chrono_literals;
using Mox::endOfTime;
using Mox::Ptr;
using Mox::Seconds;
using TestSupport::OnAnything;
using Duration = TestSupport::ManualClock::Duration;

constexpr Seconds most = std::numeric_limits<Seconds>::max();

Seconds secondsOf(Duration duration) { return Mox::toSeconds(Mox::Nanoseconds(duration.count())); }

/// A random program of operations on a timer task, in its runs too, beside a slow and obvious model: whether
/// the task is queued and when its timer expires decide all. It is over when a callback has let the task go.
class TaskProgram : TestSupport::HandTree {
  public:
    explicit TaskProgram(TestSupport::Random& random) : random_(random) {
        timers.clock->nowIs(100.0);
        task_ = timerTask();
        record_ = task_->taskRecord();
        first_ = new OnAnything(task_, [this](std::string_view callback) { hear(callback); });
        second_ = new OnAnything(task_, [this](std::string_view) { ASSERT_TRUE(task_); });
        root->clearHistory();
    }
    bool isOver() const { return !task_; }

    void step() {
        change();
        if (isOver())
            return expectWhollyGone();
        std::vector<std::string> recorded;
        for (auto const& event : root->history())
            if (event.display().ends_with("N t"))
                recorded.insert(recorded.begin(),
                                timed(event.timeStamp().time_since_epoch(), event.display()));
        root->clearHistory();
        ASSERT_EQ(std::exchange(events_, {}), recorded);
        ASSERT_EQ(std::exchange(toTell_, 0), std::exchange(told_, 0));
    }

  private:
    static std::string timed(Mox::Nanoseconds time, std::string const& event) {
        return std::to_string(time.count()) + " " + event;
    }

    // The model

    bool isArmed() const { return expiry_ != endOfTime; }
    void record(std::string event) {
        event.resize(11, ' ');
        events_.push_back(timed(Mox::SteadyClock::now().time_since_epoch(), event + "N t"));
    }
    void recordAndTell(std::string const& event) {
        record(event);
        ++toTell_;
    }
    void updateBusy() {
        if (std::exchange(busy_, queued_ || isArmed()) != busy_)
            recordAndTell(busy_ ? "busy" : "idle");
    }
    void schedule() {
        expiry_ = endOfTime;
        if (suspended_)
            record("scheduleSus");
        else if (!std::exchange(queued_, true))
            record("schedule"), queuedAt_ = steady.now();
        updateBusy();
    }
    void leaveQueue() {
        queued_ = false;
        Seconds const waited = secondsOf(steady.now() - queuedAt_);
        stat_.taskLastSchedulingLatencyIs(waited);
        stat_.taskSchedulingLatencyHighWaterMarkIs(
            std::max(waited, stat_.taskSchedulingLatencyHighWaterMark()));
    }
    void takeBack() {
        if (queued_)
            record("unschedule"), leaveQueue();
    }
    void unschedule() {
        takeBack();
        updateBusy();
    }
    void stop() {
        if (isArmed())
            record("timerStop"), expiry_ = endOfTime;
        unschedule();
    }
    void delay(Seconds delay, bool replaces = true) {
        Seconds const expiry = std::min(Mox::now() + std::max(delay, 0.01), most);
        if (delay == endOfTime)
            return stop();
        if (delay == 0.0)
            return schedule();
        if (!replaces && (queued_ || expiry > expiry_))
            return;
        takeBack();
        expiry_ = expiry;
        record("timerStart");
        updateBusy();
    }
    void suspend() {
        suspended_ = !suspended_;
        recordAndTell(suspended_ ? "suspendOn" : "suspendOff");
        if (suspended_)
            unschedule();
        else if (!isArmed())
            schedule();
    }
    void forceYield() {
        forcedYield_ = !forcedYield_;
        recordAndTell(forcedYield_ ? "frcYieldOn" : "frcYieldOff");
        quantum_ = forcedYield_ ? 0ms : 20ms;
    }
    /// What surrounds a run.
    template <class Run> void run(Run const& run) {
        if (queued_)
            leaveQueue();
        recordAndTell("run start");
        stat_.taskRunIs(stat_.taskRun() + 1);
        bool const wasRunning = std::exchange(running_, true);
        Duration const start = steady.now(), outerStart = std::exchange(runStart_, start);
        run();
        if (isOver())
            return;
        runStart_ = outerStart;
        running_ = wasRunning;
        measure(steady.now() - start);
        record("run end");
        updateBusy();
    }
    void measure(Duration duration) {
        if (duration >= 5 * quantum_)
            stat_.taskQuantumViolation500Is(stat_.taskQuantumViolation500() + 1);
        else if (duration >= 2 * quantum_)
            stat_.taskQuantumViolation200Is(stat_.taskQuantumViolation200() + 1);
        stat_.taskRunTimeHighWaterMarkIs(std::max(secondsOf(duration), stat_.taskRunTimeHighWaterMark()));
        total_ += duration;
        stat_.taskTotalRunTimeIs(secondsOf(total_));
    }
    Kel::TaskStat stat() {
        stat_.taskNameIs("t"), stat_.taskKeyIs(task_->taskKey());
        stat_.taskPriorityIs(Kel::TaskPriority::normal);
        stat_.taskStatusIs(Kel::TaskStat::TaskStatus(1u | (isArmed() ? 2u : 0u) | (queued_ ? 4u : 0u) |
                                                     (running_ ? 8u : 0u) | (suspended_ ? 16u : 0u)));
        return stat_;
    }

    // The program

    void hear(std::string_view callback) {
        ASSERT_TRUE(task_) << "a reactor that is gone was told";
        told_ += callback != "onTaskCurrentlyRunning";
        if (random_.oneIn(300))
            task_ = nullptr, second_ = nullptr, first_ = nullptr;
        for (std::size_t changes = callback == "onTaskRun" ? random_.below(4) : 0; changes > 0 && task_;
             --changes)
            change();
    }
    void expectWhollyGone() {
        ASSERT_FALSE(record_->isAlive());
        ASSERT_TRUE(root->tasksRegistered().empty());
        ASSERT_EQ(0u, root->timerWheel()->armed());
        ASSERT_EQ(0u, root->auditErrors(1));
        root->runUntilIdle();
    }
    /// So much that runs end with a quantum, with twice or five times as much, or just before.
    void timePasses() {
        Duration const time = Duration(quantum_) * std::array{0, 1, 2, 5}[random_.below(4)];
        steady.advance(time > 0ms && random_.oneIn(2) ? time - 1ns : time);
    }
    void timerMayExpire() {
        tick_ += static_cast<int>(random_.oneIn(2) ? random_.below(3) : random_.below(300));
        timers.clock->nowIs(tick_ * 0.01);
        if (expiry_ <= Mox::now())
            schedule();
        timers.manager->runOnce();
    }
    void pass() {
        auto const real = [this] { root->handleSchedulerRun(); };
        queued_ ? run(real) : real();
    }
    void change() {
        constexpr std::array delays{0.0, -5., -endOfTime, .004, .00999, .011, 1., 2., 5., most, endOfTime};
        Seconds const d = delays[random_.below(delays.size())];
        switch (running_ ? random_.below(12) : random_.below(16)) {
        case 0: schedule(), task_->scheduleTask(); break;
        case 1: unschedule(), task_->unscheduleTask(); break;
        case 2: suspend(), task_->taskSuspendedForTestIs(suspended_); break;
        case 3: forceYield(), task_->taskForceYieldInTestIs(forcedYield_); break;
        case 4: quantum_ = 1ms, task_->taskQuantumIs(0.001); break;
        case 5: stop(), task_->stopTimerTask(); break;
        case 6: delay(d), task_->scheduleTaskDelay(d); break;
        case 7: delay(d), task_->scheduleTaskJitterUp(d, d < 0 || d == most ? 255 : 0); break;
        case 8: delay(std::abs(d)), task_->scheduleTaskJitterDown(std::abs(d), 0); break;
        case 9: delay(std::min(d, most), false), task_->scheduleTaskLowestDelay(std::min(d, most)); break;
        case 10: timePasses(); break;
        case 11:
            expiry_ = endOfTime;
            run([this] { task_->taskRunFromTest(); });
            break;
        case 12: stat_ = {}, total_ = {}, task_->resetStats(); break;
        case 13: timerMayExpire(); break;
        default: pass();
        }
        if (isOver())
            return;
        ASSERT_EQ(stat(), task_->getStats());
        ASSERT_EQ(busy_, task_->taskBusy());
        ASSERT_EQ(queued_ || isArmed(), task_->taskScheduled());
        ASSERT_EQ(expiry_, task_->timer()->timeMin());
        ASSERT_EQ(queued_ ? Mox::now() : expiry_, task_->currentExpirationTime());
        ASSERT_TRUE(!running_ || task_->taskShouldYield() == (steady.now() - runStart_ >= quantum_));
    }

    TestSupport::Random& random_;
    Ptr<Kel::TimerTask> task_;
    Ptr<Kel::TaskRecord> record_;
    Ptr<OnAnything> first_, second_;
    int tick_ = 10'000;

    bool queued_ = false, suspended_ = false, forcedYield_ = false, running_ = false, busy_ = false;
    Seconds expiry_ = endOfTime;
    Duration quantum_ = 20ms, queuedAt_{}, runStart_{}, total_{};
    Kel::TaskStat stat_;
    std::vector<std::string> events_;
    int toTell_ = 0, told_ = 0;
};

TEST(TaskModel, HoldsStateTimesEventsAndStatisticsAndMayBeLetGoInAnyCallback) {
    TestSupport::Random random;
    std::optional<TaskProgram> program;
    for (std::size_t left = TestSupport::operations(50'000); left > 0 && !testing::Test::HasFailure();
         --left) {
        if (!program || program->isOver())
            program.emplace(random);
        program->step();
    }
}

} // namespace
