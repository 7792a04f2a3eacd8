#include <export/ChromeTrace.h>
#include <export/Prometheus.h>

#include <group/TaskGroup.h>
#include <support/FailingSink.h>
#include <support/HandRoot.h>
#include <support/Python.h>
#include <support/RandomRecords.h>
#include <support/TaskReactors.h>

#include <gmock/gmock.h>

#include <sstream>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using TestSupport::OnRun;

struct ChromeTraceTest : TestSupport::HandTreeTest {
    /// A task whose runs take that long.
    Mox::Ptr<OnRun> worker(Mox::Ptr<Task> const& task, std::chrono::nanoseconds length) {
        return new OnRun(task, [this, length] { steady.advance(length); });
    }
    std::vector<std::string> shown() {
        std::ostringstream sink;
        Kel::writeChromeTrace(root, sink);
        return TestSupport::python("export/check_trace.py", sink.str());
    }
};

TEST_F(ChromeTraceTest, RunsAreSlicesAndQueuesAreCounted) {
    auto const a = task("a"), b = task("b", TaskPriority::high);
    auto const workOfA = worker(a, 3500ns), workOfB = worker(b, 1us);
    a->scheduleTask();
    steady.advance(1us);
    b->scheduleTask();
    steady.advance(1001ns);
    b->taskQuantumIs(0.000002);
    root->runUntilIdle();
    EXPECT_THAT(shown(),
                ElementsAre("process \"root\"",
                            "2.001 root high: \"b\" for 1.000 latency_us=1.001 quantum_percent=50.0",
                            "3.001 root normal: \"a\" for 3.500 latency_us=3.001 quantum_percent=0.0",
                            "0.000 root high: 0 queued", "1.000 root high: 1 queued",
                            "2.001 root high: 0 queued", "0.000 root normal: 0 queued",
                            "0.000 root normal: 1 queued", "3.001 root normal: 0 queued"));
}

TEST_F(ChromeTraceTest, ViolationsSuspensionAndTimersAreInstantsOfTasksOfAnyName) {
    auto const t = timerTask("\"\\\n\x01\xff\xc3(\xc3\xa9\xed\xa0\x80");
    std::string const name = R"("\"\\\n\u0001\ufffd\ufffd(\u00e9\ufffd\ufffd\ufffd")";
    auto const work = worker(t, 4ms);
    t->taskQuantumIs(0.001);
    t->scheduleTaskDelay(1.0);
    t->stopTimerTask();
    t->taskSuspendedForTestIs(true);
    t->taskSuspendedForTestIs(false);
    root->runUntilIdle();
    root->suspendedIs(true);
    EXPECT_THAT(
        shown(),
        testing::IsSupersetOf(
            {"4000.000 root normal: 200% violation " + name, "0.000 root normal: timer started " + name,
             "0.000 root normal: timer stopped " + name, "0.000 root normal: suspended " + name,
             "0.000 root normal: resumed " + name, std::string("4000.000 all: scheduler suspended")}));
    t->taskQuantumIs(0.0008);
    EXPECT_THAT(shown(), testing::Contains("4000.000 root normal: 500% violation " + name));
}

TEST_F(ChromeTraceTest, DeadTasksHaveTheirLaneAndLeaveTheQueue) {
    {
        auto const group = Kel::TaskGroup::TaskGroupIs("g", TaskPriority::high, false, root);
        auto const slow = Task::TaskIs(group, TaskPriority::low, "slow");
        auto const work = worker(slow, 50ms);
        slow->taskQuantumIs(1.0);
        slow->scheduleTask();
        root->runUntilIdle();
    }
    auto const survivor = task("survivor");
    task("diesFirst")->scheduleTask();
    steady.advance(1ms);
    survivor->scheduleTask();
    task("diesLast")->scheduleTask();
    root->runUntilIdle();
    steady.advance(1ms);
    EXPECT_THAT(shown(),
                testing::IsSupersetOf({"0.000 root high: \"TaskGroup;g\" for 50000.000 latency_us=0.000 "
                                       "quantum_percent=250.0 about=True",
                                       "0.000 TaskGroup;g low: \"slow\" for 50000.000 latency_us=0.000 "
                                       "quantum_percent=5.0 about=True",
                                       "50000.000 root high: about 200% violation \"TaskGroup;g\"",
                                       "51000.000 root normal: 2 queued", "51000.000 root normal: 1 queued",
                                       "52000.000 root normal: 0 queued"}));
}

TEST_F(ChromeTraceTest, RunsThatTheHistoryCutsOffAreDrawnAsFarAsTheyAreKnown) {
    auto const outer = task("outer"), inner = task("inner");
    std::vector<std::string> within;
    Mox::Ptr<OnRun> const runsInner = new OnRun(outer, [&] { inner->taskRunFromTest(); });
    Mox::Ptr<OnRun> const clears = new OnRun(inner, [&] {
        steady.advance(40ms);
        within = shown();
        root->clearHistory();
        task("marker")->scheduleTask();
        steady.advance(1ms);
    });
    outer->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_THAT(within,
                testing::IsSupersetOf({"0.000 root normal: \"outer\" for 40000.000 latency_us=0.000 cut=end",
                                       "0.000 root normal: \"inner\" for 40000.000 cut=end"}));
    auto const lines = shown();
    EXPECT_THAT(std::vector(lines.begin() + 1, lines.begin() + 3),
                ElementsAre("0.000 root normal: \"outer\" for 1000.000 cut=beginning",
                            "0.000 root normal: \"inner\" for 1000.000 cut=beginning"));
    EXPECT_THAT(lines, Not(Contains(testing::HasSubstr("violation"))));
}

TEST_F(ChromeTraceTest, QueueLengthsEndAtTheTruthWhateverHappened) {
    TestSupport::RandomRecords records;
    auto& random = records.random();
    std::vector<Mox::Ptr<Task>> tasks(20);
    for (std::size_t step = 0; step < TestSupport::operations(20000); ++step) {
        Mox::Ptr<Task>& one = tasks[random.below(tasks.size())];
        steady.advance(1us);
        if (!one)
            one = task(records.name());
        else if (random.oneIn(4))
            one = nullptr;
        else if (random.oneIn(4))
            one->unscheduleTask();
        else if (random.oneIn(5))
            one->taskRunFromTest();
        else if (random.oneIn(2))
            root->handleSchedulerRun();
        else
            one->scheduleTask();
        if (random.oneIn(100))
            root->clearHistory();
        if (!random.oneIn(2000) || root->history().empty())
            continue;
        auto const lines = shown();
        std::string const queued = std::to_string(root->runnableTaskCount(TaskPriority::normal)) + " queued";
        if (lines.size() > 1) { // else it has no events of tasks
            ASSERT_THAT(lines.back(), testing::EndsWith(": " + queued));
        }
    }
}

TEST_F(ChromeTraceTest, ASinkThatFailsHalfWayIsAnErrorAndNothingElse) {
    auto const t = task();
    t->scheduleTask();
    TestSupport::FailingSink ofTrace(100), ofMetrics(100);
    EXPECT_THROW(Kel::writeChromeTrace(root, ofTrace), std::ios_base::failure);
    EXPECT_THROW(Kel::writePrometheus(root, ofMetrics), std::ios_base::failure);
    EXPECT_EQ(0u, root->moxAuditErrors(1));
}

} // namespace
