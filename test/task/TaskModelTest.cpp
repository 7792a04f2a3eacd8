#include <task/TimerTask.h>

#include <support/HandRoot.h>
#include <support/Random.h>
#include <support/TaskReactors.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>

namespace {

using namespace TestSupport;
using Duration = ManualClock::Duration;

constexpr Seconds most = std::numeric_limits<Seconds>::max();

struct Statistics {
    U32 runs = 0, of200 = 0, of500 = 0;
    U64 work = 0;
    Duration total{}, longest{}, latency{}, worstLatency{};
};

/// A program of operations on a task, in its runs too, beside a slow and obvious model: whether the task is
/// queued and when its timer expires decide all. Random ones are over when a callback has let the task go.
class TaskProgram : HandTree {
  public:
    explicit TaskProgram(bool hasTimer, Random* random = nullptr) : random_(random) {
        timers.clock->nowIs(100.0);
        timer_ = hasTimer ? timerTask() : nullptr;
        task_ = hasTimer ? Ptr<Task>(timer_) : task();
        record_ = task_->taskRecord();
        first_ = new OnAnything(task_, [this](std::string_view callback) { hear(callback); });
        second_ = new OnAnything(task_, [this](std::string_view) { ASSERT_TRUE(task_); });
        root->clearHistory();
    }
    bool isOver() const { return !task_; }

    void step() {
        change();
        if (!isOver())
            return static_cast<void>(takeEvents());
        EXPECT_FALSE(record_->isAlive());
        EXPECT_EQ(0u, root->deadTaskStats("t")->taskStatus().value() & 6u) << "timer and queue are left";
        EXPECT_EQ(0u, root->tasksRegistered().size() + root->timerWheel()->armed() + root->runUntilIdle());
    }
    /// The events that the operations make; the others are those of the first run.
    std::string eventsOf(std::string const& operations, std::string const& inRun) {
        inRun_ = inRun;
        perform(operations);
        return takeEvents();
    }

  private:
    std::string takeEvents() {
        std::string recorded;
        for (std::string const& event : root->takeHistory())
            if (event.ends_with("N t"))
                recorded += event.substr(0, event.find_last_not_of(' ', 10) + 1) + "; ";
        EXPECT_EQ(std::exchange(events_, {}), recorded);
        EXPECT_EQ(std::exchange(toTell_, 0), std::exchange(told_, 0));
        return recorded;
    }

    // The model

    bool isArmed() const { return expiry_ != endOfTime; }
    void record(std::string const& event) { events_ += event + "; "; }
    /// Returns whether the attribute takes the value as a change, of which it tells.
    template <class T> bool set(T& attribute, T value) {
        if (attribute == value)
            return false;
        attribute = value;
        toTell_ += active_;
        return true;
    }
    void busyIs(bool busy) {
        if (set(busy_, busy))
            record(busy_ ? "busy" : "idle");
    }
    void updateBusy() { busyIs(queued_ || isArmed()); }
    void schedule() {
        expiry_ = endOfTime;
        if (queued_)
            return;
        queued_ = !suspended_;
        record(queued_ ? "schedule" : "scheduleSus");
        if (queued_)
            queuedAt_ = steady.now(), updateBusy();
    }
    void leaveQueue() {
        queued_ = false;
        stats_.latency = steady.now() - queuedAt_;
        stats_.worstLatency = std::max(stats_.worstLatency, stats_.latency);
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
        Seconds const expiry = std::min(now() + std::max(delay, 0.01), most);
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
        set(suspended_, !suspended_);
        record(suspended_ ? "suspendOn" : "suspendOff");
        if (suspended_)
            unschedule();
        else if (!isArmed())
            schedule();
    }
    void forceYield() {
        set(forcedYield_, !forcedYield_);
        record(forcedYield_ ? "frcYieldOn" : "frcYieldOff");
        quantum_ = forcedYield_ ? 0ms : 20ms;
    }
    /// What surrounds a run; whoever has set the attribute, the outermost ends what it says.
    template <class Run> void run(Run const& run) {
        if (queued_)
            leaveQueue();
        record("run start");
        ++depth_;
        set(running_, true);
        set(stats_.runs, stats_.runs + 1);
        Duration const start = steady.now(), outerStart = std::exchange(runStart_, start);
        run();
        if (isOver())
            return;
        set(running_, --depth_ > 0);
        if (depth_ > 0)
            runStart_ = outerStart;
        measure(steady.now() - start);
        record("run end");
        updateBusy();
    }
    void measure(Duration duration) {
        stats_.of500 += duration >= 5 * quantum_;
        stats_.of200 += duration >= 2 * quantum_ && duration < 5 * quantum_;
        stats_.longest = std::max(stats_.longest, duration);
        stats_.total += duration;
    }
    TaskStat stat() const {
        TaskStat stat;
        stat.taskNameIs("t"), stat.taskKeyIs(task_->taskKey());
        stat.taskPriorityIs(TaskPriority::normal);
        stat.taskRunIs(stats_.runs), stat.taskWorkCountIs(stats_.work);
        stat.taskQuantumViolation500Is(stats_.of500), stat.taskQuantumViolation200Is(stats_.of200);
        stat.taskTotalRunTimeIs(secondsOf(stats_.total)),
            stat.taskRunTimeHighWaterMarkIs(secondsOf(stats_.longest));
        stat.taskLastSchedulingLatencyIs(secondsOf(stats_.latency));
        stat.taskSchedulingLatencyHighWaterMarkIs(secondsOf(stats_.worstLatency));
        stat.taskStatusIs(TaskStat::TaskStatus((timer_ ? 1u : 0u) | (isArmed() ? 2u : 0u) |
                                               (queued_ ? 4u : 0u) | (running_ ? 8u : 0u) |
                                               (suspended_ ? 16u : 0u)));
        return stat;
    }

    // The program

    void hear(std::string_view callback) {
        ASSERT_TRUE(task_) << "a reactor that is gone was told";
        ++told_;
        if (random_ && random_->oneIn(300))
            task_ = nullptr, timer_ = nullptr, second_ = nullptr, first_ = nullptr;
        if (callback != "onTaskRun")
            return;
        perform(std::exchange(inRun_, {}));
        for (std::size_t changes = random_ ? random_->below(4) : 0; changes > 0 && task_; --changes)
            change();
    }
    /// So much that runs end with a quantum, with twice or five times as much, or just before.
    void timePasses() {
        Duration const time = Duration(quantum_) * std::array{0, 1, 2, 5}[random_->below(4)];
        steady.advance(time > 0ms && random_->oneIn(2) ? time - 1ns : time);
    }
    void timerMayExpire(Seconds later) {
        tick_ += std::lround(std::clamp(later, 0.0, 3.0) * 100);
        timers.clock->nowIs(static_cast<double>(tick_) * 0.01);
        if (expiry_ <= now())
            active_ ? schedule() : static_cast<void>(expiry_ = endOfTime); // muted, it is spent
        timers.manager->runOnce();
    }
    void pass() {
        auto const real = [this] { root->handleSchedulerRun(); };
        queued_ ? run(real) : real();
    }

    /// A number that goes with a time: 0, 1 or the greatest.
    static U32 n(Seconds d) { return d > 1.0 ? ~U32{0} : d > 0.0; }
    using S = Seconds;
    static constexpr std::size_t ofTimers = 6; // the last
    std::vector<std::pair<std::string, std::function<void(S)>>> const operations_ = {
        {"schedule", [this](S) { schedule(), task_->scheduleTask(); }},
        {"unschedule", [this](S) { unschedule(), task_->unscheduleTask(); }},
        {"suspend", [this](S) { suspend(), task_->taskSuspendedForTestIs(suspended_); }},
        {"forceYield", [this](S) { forceYield(), task_->taskForceYieldInTestIs(forcedYield_); }},
        {"quantum", [this](S) { quantum_ = 1ms, task_->taskQuantumIs(0.001); }},
        {"time", [this](S) { timePasses(); }},
        {"runFromTest", [this](S) { expiry_ = endOfTime, run([this] { task_->taskRunFromTest(); }); }},
        {"resetStats", [this](S) { stats_ = Statistics(), task_->resetStats(); }},
        {"pass", [this](S) { pass(); }},
        {"active", [this](S d) { active_ = d != 0.0, task_->hasNotificationActiveIs(active_); }},
        {"busy", [this](S d) { busyIs(n(d) > 0), task_->taskBusyIs(n(d) > 0); }},
        {"running", [this](S d) { set(running_, n(d) > 0), task_->taskCurrentlyRunningIs(n(d) > 0); }},
        {"runs", [this](S d) { set(stats_.runs, n(d)), task_->taskRunIs(n(d)); }},
        {"moreRuns", [this](S d) { set(stats_.runs, stats_.runs + n(d)), task_->taskRunInc(n(d)); }},
        {"work", [this](S d) { set(stats_.work, U64{n(d)}), task_->taskWorkCountIs(n(d)); }},
        {"moreWork", [this](S d) { set(stats_.work, stats_.work + n(d)), task_->taskWorkCountInc(n(d)); }},
        {"stop", [this](S) { stop(), timer_->stopTimerTask(); }},
        {"delay", [this](S d) { delay(d), timer_->scheduleTaskDelay(d); }},
        {"up", [this](S d) { delay(d), timer_->scheduleTaskJitterUp(d, d < 0 || d == most ? 255 : 0); }},
        {"down", [this](S d) { delay(d = std::abs(d)), timer_->scheduleTaskJitterDown(d, 0); }},
        {"lowest", [this](S d) { delay(d = std::min(d, most), false), timer_->scheduleTaskLowestDelay(d); }},
        {"clock", [this](S d) { timerMayExpire(d); }},
    };
    /// Each is a name, and a number where one goes with it.
    void perform(std::string const& operations) {
        std::istringstream stream(operations);
        for (std::string name; stream >> name;) {
            Seconds with = 0.0;
            if (!(stream >> with))
                stream.clear();
            std::ranges::find(operations_, name, [](auto const& each) { return each.first; })->second(with);
            expectAlike();
        }
    }
    void change() {
        constexpr std::array delays{0.0,  -5., -endOfTime, .004, .00999, .01,
                                    .011, 1.,  2.,         5.,   most,   endOfTime};
        auto const& [name, operation] =
            operations_[random_->below(operations_.size() - (timer_ ? 0 : ofTimers))];
        Seconds const with = random_->of(delays);
        random_->doing(name, with);
        operation(with);
        if (!isOver())
            expectAlike();
    }
    void expectAlike() {
        ASSERT_EQ(stat(), task_->getStats());
        ASSERT_EQ(busy_, task_->taskBusy());
        ASSERT_EQ(queued_ || isArmed(), task_->taskScheduled());
        ASSERT_EQ(steady.now() - runStart_ >= quantum_, task_->taskShouldYield());
        if (timer_) {
            ASSERT_EQ(expiry_, timer_->timer()->timeMin());
            ASSERT_EQ(queued_ ? now() : expiry_, timer_->currentExpirationTime());
        }
    }

    Random* const random_;
    std::string inRun_;
    Ptr<Task> task_;
    Ptr<TimerTask> timer_; // the same
    Ptr<TaskRecord> record_;
    Ptr<OnAnything> first_, second_;
    long tick_ = 10'000;

    bool queued_ = false, suspended_ = false, forcedYield_ = false, running_ = false, busy_ = false;
    bool active_ = true;
    int depth_ = 0;
    Seconds expiry_ = endOfTime;
    Duration quantum_ = 20ms, queuedAt_{}, runStart_{};
    Statistics stats_;
    std::string events_;
    int toTell_ = 0, told_ = 0;
};

TEST(TaskModel, HoldsStateTimesEventsAndStatisticsAndMayBeLetGoInAnyCallback) {
    Random random;
    std::optional<TaskProgram> program;
    for (std::size_t left = operations(300'000); left > 0 && !testing::Test::HasFailure(); --left) {
        if (!program || program->isOver())
            program.emplace(random.oneIn(2), &random);
        program->step();
    }
}

TEST(TaskModel, PromisesTheseEvents) {
    struct {
        bool needsTimer;
        char const *operations, *inRun, *events;
    } const rows[] = {
        {false, "schedule schedule", "", "schedule; busy; "},
        {false, "schedule pass", "", "schedule; busy; run start; run end; idle; "},
        {false, "schedule pass", "schedule schedule", "schedule; busy; run start; schedule; run end; "},
        {false, "schedule pass", "unschedule", "schedule; busy; run start; idle; run end; "},
        {false, "suspend schedule suspend", "", "suspendOn; scheduleSus; suspendOff; schedule; busy; "},
        {false, "schedule suspend pass", "", "schedule; busy; suspendOn; unschedule; idle; "},
        {false, "runFromTest", "running 0 runFromTest", "run start; run start; run end; run end; "},
        {true, "delay 2 clock 2 pass", "", "timerStart; busy; schedule; run start; run end; idle; "},
        {true, "delay 2 stop stop", "", "timerStart; busy; timerStop; idle; "},
        {true, "delay 2 suspend clock 2", "", "timerStart; busy; suspendOn; scheduleSus; "},
        {true, "schedule delay 5 delay 0", "", "schedule; busy; unschedule; timerStart; schedule; "},
        {true, "delay 2 lowest 5 lowest 1 clock 1", "", "timerStart; busy; timerStart; schedule; "},
        {true, "schedule pass", "delay 2", "schedule; busy; run start; timerStart; run end; "},
    };
    for (auto const& [needsTimer, operations, inRun, events] : rows)
        for (bool const hasTimer : {needsTimer, true})
            EXPECT_EQ(events, TaskProgram(hasTimer).eventsOf(operations, inRun)) << operations;
}

} // namespace
