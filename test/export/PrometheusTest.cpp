#include <export/Prometheus.h>

#include <group/TaskGroup.h>
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
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

struct PrometheusTest : TestSupport::HandTreeTest {
    std::vector<std::string> samples(std::size_t namesMax = Kel::prometheusTaskNamesMax) {
        std::ostringstream sink;
        Kel::writePrometheus(root, sink, namesMax);
        return TestSupport::python("export/check_metrics.py", sink.str());
    }
    /// Waits, and runs, as long as that.
    void run(Mox::Ptr<Task> const& t, std::chrono::nanoseconds waits, std::chrono::nanoseconds runs) {
        Mox::Ptr<TestSupport::OnRun> const work =
            new TestSupport::OnRun(t, [this, runs] { steady.advance(runs); });
        t->scheduleTask();
        steady.advance(waits);
        t->taskScheduler()->handleSchedulerRun();
    }
};

TEST_F(PrometheusTest, TheLivingAndTheDeadOfOneNameAreOneSeriesOfTheirScheduler) {
    auto const t = task("t"), idle = task("idle");
    run(t, 1ms, 50ms);
    run(t, 250us, 125ms);
    run(task("t"), 4ms, 500us);
    run(task("gone", TaskPriority::scavenge), 2ms, 0ms);
    auto const group = Kel::TaskGroup::TaskGroupIs("g", TaskPriority::low, false, root);
    auto const inner = Task::TaskIs(group, TaskPriority::normal, "inner");
    inner->scheduleTask();
    root->runUntilIdle();
    t->scheduleTask();
    EXPECT_THAT(samples(),
                IsSupersetOf({"task_runs_total root normal t = 3", "task_runs_total root normal idle = 0",
                              "task_runs_total root scavenge gone = 1",
                              "task_runs_total TaskGroup;g normal inner = 1",
                              "task_runs_total root low TaskGroup;g = 2", "idle_tasks TaskGroup;g normal = 1",
                              "task_run_seconds_total root normal t = 0.1755",
                              "task_last_latency_seconds root normal t = 0.00025",
                              "task_last_latency_seconds root scavenge gone = 0.002",
                              "task_max_latency_seconds root normal t = 0.004",
                              "task_quantum_violations_total root normal t 200 = 1",
                              "task_quantum_violations_total root normal t 500 = 1",
                              "runnable_tasks root normal = 1", "idle_tasks root normal = 1",
                              "dead_tasks_total root normal = 1", "dead_tasks_total root scavenge = 1",
                              "dead_tasks_total root high = 0", "scheduler_max_slip_seconds root = 0.004"}));
}

TEST_F(PrometheusTest, NamesBeyondTheCapAreSummedUpForTheirPriority) {
    auto const most = task("most"), some = task("some"), other = task("other"),
               low = task("low", TaskPriority::low);
    run(most, 0ms, 3ms);
    run(other, 0ms, 2ms);
    run(some, 5ms, 1ms);
    run(low, 0ms, 1ms);
    auto const lines = samples(2);
    EXPECT_THAT(lines,
                IsSupersetOf({"task_runs_total root normal most = 1", "task_runs_total root normal other = 2",
                              "task_max_latency_seconds root normal other = 0.005",
                              "task_runs_total root low other = 1"}));
    EXPECT_THAT(lines, Not(Contains(StartsWith("task_runs_total root normal some"))));
}

TEST_F(PrometheusTest, NamesOfAnyBytesGiveAValidExposition) {
    auto const quoted = task("\"\\\n\r\x01"), one = task("\xff"), two = task("\xfe"); // which look alike
    EXPECT_THAT(samples(), IsSupersetOf({R"(task_runs_total root normal \"\\\n\r\u0001 = 0)",
                                         R"(task_runs_total root normal \ufffd = 0)"}));
    TestSupport::RandomRecords records;
    for (int i = 0; i < 300; ++i) {
        Kel::TaskStat stat;
        stat.taskNameIs(records.name());
        root->deadTaskStatsInc(stat.taskName(), stat);
        task(records.name());
    }
    EXPECT_THAT(samples(5), Contains(StartsWith("task_runs_total root normal other = ")));
}

} // namespace
