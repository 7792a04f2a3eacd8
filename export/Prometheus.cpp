#define MOX_SOURCE_NAME "Export"
#include <export/Prometheus.h>

#include <export/detail/OutputText.h>
#include <mox/Assert.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace Kel {

namespace {

/// What a series of tasks sums up: the living and the dead, merged as a scheduler merges its dead. Of the
/// last latency that rule keeps the latest record's, which of the living is any; so here the greatest counts,
/// and that of the dead stands in when none lives.
struct Figures {
    TaskStat sum;                              // without a name: "other" has many
    std::array<Mox::Seconds, 2> lastLatency{}; // of the dead, of the living
    bool anyLives = false;

    void add(TaskStat stat, bool lives) {
        stat.taskNameIs({});
        Mox::Seconds const latency = stat.taskLastSchedulingLatency();
        add({std::move(stat), {lives ? 0 : latency, lives ? latency : 0}, lives});
    }
    void add(Figures const& other) {
        sum += other.sum;
        for (bool const lives : {false, true})
            lastLatency[lives] = std::max(lastLatency[lives], other.lastLatency[lives]);
        anyLives |= other.anyLives;
    }
};

struct QueueFigures {
    Mox::U64 runnable = 0, idle = 0, dead = 0;
};

/// A label's value, escaped and in its quotes. Names that look alike to a reader of the output are one.
std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (char const c : validUtf8(text)) {
        if (c == '\\' || c == '"')
            result += '\\';
        result += c == '\n' ? "\\n" : std::string_view(&c, 1);
    }
    return result += '"';
}

/// Label values, as they are written.
using SchedulerLabel = std::string;
struct QueueLabels {
    SchedulerLabel scheduler;
    TaskPriority priority;
    friend auto operator<=>(QueueLabels const& a, QueueLabels const& b) {
        return std::tuple(std::string_view(a.scheduler), a.priority.numericValue()) <=>
               std::tuple(std::string_view(b.scheduler), b.priority.numericValue());
    }
};
struct TaskLabels {
    QueueLabels queue;
    std::string task;
    friend auto operator<=>(TaskLabels const& a, TaskLabels const& b) = default;
};

std::string labels(SchedulerLabel const& scheduler) { return "scheduler=" + scheduler; }
std::string labels(QueueLabels const& queue) {
    return fmt::format("{},priority=\"{}\"", labels(queue.scheduler), queue.priority.toStrep());
}
std::string labels(TaskLabels const& task) {
    return fmt::format("{},task={}", labels(task.queue), task.task);
}

/// What a tree measured, by labels.
class Measured {
  public:
    Measured(TaskSchedulerRoot const& root, std::size_t taskNamesMax) {
        for (auto const& [scheduler, isRegistered] : root.taskScheduler())
            if (isRegistered)
                add(*scheduler);
        if (tasks.size() > taskNamesMax)
            sumUpOthers(taskNamesMax);
    }

    std::map<SchedulerLabel, Mox::Seconds> slips;
    std::map<QueueLabels, QueueFigures> queues;
    std::map<TaskLabels, Figures> tasks;

  private:
    /// Schedulers of one name are one to whoever reads the output, so they are summed up: the format
    /// has each set of labels once.
    void add(TaskScheduler const& scheduler) {
        SchedulerLabel const label = quoted(scheduler.schedulerName());
        Mox::Seconds& slip = slips[label];
        slip = std::max(slip, scheduler.schedulerMaxSchedulerSlip());
        TaskSchedulerQueueStats const queueStats = scheduler.queueStats();
        for (auto const& [priority, stats] : queueStats.priority()) {
            QueueFigures& queue = queues[{label, priority}];
            queue.runnable += stats.runnableTasks();
            queue.idle += stats.idleTasks();
            queue.dead += stats.deadTasks();
        }
        addTasks(scheduler, label);
    }

    /// First by the names as they are, then by labels: many tasks share few names, and a label takes an
    /// allocation and a look at every byte. The names stay where they are meanwhile. What an application has
    /// put among the dead with a priority that is none has no series to be in.
    void addTasks(TaskScheduler const& scheduler, SchedulerLabel const& label) {
        std::array<std::unordered_map<std::string_view, Figures>, TaskRunQueues::count> byName;
        auto const& living = scheduler.tasksRegistered();
        for (Task const* task = living.first(); task; task = living.after(task))
            byName[task->taskPriority().numericValue()][task->taskRecord()->taskName()].add(task->getStats(),
                                                                                            true);
        for (auto const& [name, stat] : scheduler.deadTaskStats())
            if (stat.taskPriority().isValid())
                byName[stat.taskPriority().numericValue()][name].add(stat, false);
        for (Mox::U32 p = 0; p < byName.size(); ++p)
            for (auto const& [name, figures] : byName[p])
                tasks[{{label, TaskPriority::PriorityEnumInstance(p)}, quoted(name)}].add(figures);
    }

    /// A NaN has no place in the order, and would leave all of it open: it counts as the least. Of equal run
    /// times the first labels stay, so that idle tasks don't change places from one reading to the next. The
    /// others are summed up beside the series and added at the end, for one of those that stay may be named
    /// "other" itself.
    void sumUpOthers(std::size_t taskNamesMax) {
        std::vector<std::map<TaskLabels, Figures>::iterator> ranking;
        for (auto at = tasks.begin(); at != tasks.end(); ++at)
            ranking.push_back(at);
        std::ranges::stable_sort(ranking, std::greater(), [](auto at) {
            Mox::Seconds const runTime = at->second.sum.taskTotalRunTime();
            return std::isnan(runTime) ? -Mox::endOfTime : runTime;
        });
        for (std::size_t rank = taskNamesMax; rank < ranking.size(); ++rank) {
            auto const series = tasks.extract(ranking[rank]);
            others_[series.key().queue].add(series.mapped());
        }
        for (auto const& [queue, figures] : others_)
            tasks[{queue, "\"other\""}].add(figures);
    }

    std::map<QueueLabels, Figures> others_;
};

class Exposition {
  public:
    explicit Exposition(Measured const& measured) : measured_(measured) {}

    /// Family by family: the format wants all samples of one metric in one group.
    std::string text() {
        writeTasks();
        writeQueues();
        family("keltask_scheduler_max_slip_seconds", "gauge",
               "Longest time from a request for a pass of the scheduler to the pass; "
               "the thread was held by something else");
        for (auto const& [label, slip] : measured_.slips)
            sample(labels(label), slip);
        return std::move(text_);
    }

  private:
    void writeTasks() {
        using F = Figures const&;
        taskFamily("keltask_task_runs_total", "counter", "Runs of the tasks of that name",
                   [](F f) { return Mox::U64{f.sum.taskRun()}; });
        taskFamily("keltask_task_run_seconds_total", "counter",
                   "Time that the runs of the tasks of that name took",
                   [](F f) { return f.sum.taskTotalRunTime(); });
        taskFamily("keltask_task_last_latency_seconds", "gauge",
                   "Time from being scheduled to leaving the run queue, of the last run",
                   [](F f) { return f.lastLatency[f.anyLives]; });
        taskFamily("keltask_task_max_latency_seconds", "gauge",
                   "Time from being scheduled to leaving the run queue, at most",
                   [](F f) { return f.sum.taskSchedulingLatencyHighWaterMark(); });
        family(
            "keltask_task_quantum_violations_total", "counter",
            "Runs that took so many percent of the quantum or more; those of 500 are not among those of 200");
        for (auto const& [task, figures] : measured_.tasks) {
            sample(labels(task) + ",limit=\"200\"", Mox::U64{figures.sum.taskQuantumViolation200()});
            sample(labels(task) + ",limit=\"500\"", Mox::U64{figures.sum.taskQuantumViolation500()});
        }
    }
    void writeQueues() {
        using Q = QueueFigures const&;
        queueFamily("keltask_runnable_tasks", "gauge", "Tasks on the run queue",
                    [](Q q) { return q.runnable; });
        queueFamily("keltask_idle_tasks", "gauge", "Tasks that are not on the run queue",
                    [](Q q) { return q.idle; });
        queueFamily("keltask_dead_tasks_total", "counter", "Tasks that have died",
                    [](Q q) { return q.dead; });
    }

    template <class Value>
    void taskFamily(std::string_view name, std::string_view type, std::string_view help, Value value) {
        family(name, type, help);
        for (auto const& [task, figures] : measured_.tasks)
            sample(labels(task), value(figures));
    }
    template <class Value>
    void queueFamily(std::string_view name, std::string_view type, std::string_view help, Value value) {
        family(name, type, help);
        for (auto const& [queue, figures] : measured_.queues)
            sample(labels(queue), value(figures));
    }

    void family(std::string_view name, std::string_view type, std::string_view help) {
        name_ = name;
        fmt::format_to(std::back_inserter(text_), "# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
    }
    void sample(std::string const& labels, Mox::U64 value) {
        fmt::format_to(std::back_inserter(text_), "{}{{{}}} {}\n", name_, labels, value);
    }
    void sample(std::string const& labels, double value) {
        std::string const text = std::isnan(value)   ? "NaN"
                                 : std::isinf(value) ? (value > 0 ? "+Inf" : "-Inf")
                                                     : fmt::format("{}", value);
        fmt::format_to(std::back_inserter(text_), "{}{{{}}} {}\n", name_, labels, text);
    }

    Measured const& measured_;
    std::string_view name_;
    std::string text_;
};

} // namespace

void writePrometheus(Mox::Ptr<TaskSchedulerRoot const> const& root, std::ostream& sink,
                     std::size_t taskNamesMax) {
    MOX_ASSERT(root);
    root->sanityCheckCurrentRunningThread();
    writeWhole(sink, Exposition(Measured(*root, taskNamesMax)).text());
}

} // namespace Kel
