#define MOX_SOURCE_NAME "Export"
#include <export/Prometheus.h>

#include <export/detail/OutputText.h>
#include <export/detail/TaskFigures.h>
#include <mox/Assert.h>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <set>
#include <string>

namespace Kel {

namespace {

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
    Slices gather(TaskSchedulerRoot const& root, std::size_t taskNamesMax) {
        auto const& schedulers = root.taskScheduler();
        for (auto at = schedulers.begin(); at != schedulers.end();) {
            TaskScheduler const* const scheduler = at->first;
            if (at->second)
                co_await add(*scheduler);
            at = schedulers.iteratorBehind(scheduler);
        }
        if (tasks.size() > taskNamesMax)
            co_await sumUpOthers(taskNamesMax);
    }
    Slices letGo() {
        co_await freed(tasks);
        co_await freed(queues);
        co_await freed(slips);
    }

    std::map<SchedulerLabel, Mox::Seconds> slips;
    std::map<QueueLabels, QueueFigures> queues;
    std::map<TaskLabels, TaskFigures> tasks;

  private:
    using Series = std::map<TaskLabels, TaskFigures>::iterator;

    /// A series among the others. A NaN has no place in the order, and would leave all of it open: it counts
    /// as the least. Of equal run times the first labels stay, so that idle tasks don't change places from
    /// one reading to the next.
    struct Ranked {
        Mox::Seconds runTime;
        std::size_t place;
        Series series;

        bool operator<(Ranked const& other) const {
            return runTime != other.runTime ? runTime > other.runTime : place < other.place;
        }
    };

    /// Schedulers of one name are one to whoever reads the output, so they are summed up: the format
    /// has each set of labels once.
    Slices add(TaskScheduler const& scheduler) {
        constexpr Mox::U32 perScheduler = 5000, perLabel = 1500;
        SchedulerLabel const label = quoted(scheduler.schedulerName());
        Mox::Seconds& slip = slips[label];
        slip = std::max(slip, scheduler.schedulerMaxSchedulerSlip());
        addQueues(scheduler, label);
        TaskFiguresOfScheduler figures;
        co_await figures.gather(scheduler);
        co_yield perScheduler;
        for (Mox::U32 p = 0; p < TaskRunQueues::count; ++p)
            for (auto& byName = figures.ofPriority(p); !byName.empty(); byName.erase(byName.begin())) {
                auto const& [name, ofName] = *byName.begin();
                tasks[{{label, TaskPriority::PriorityEnumInstance(p)}, quoted(name)}].add(ofName);
                co_yield perLabel;
            }
    }

    void addQueues(TaskScheduler const& scheduler, SchedulerLabel const& label) {
        TaskSchedulerQueueStats const queueStats = scheduler.queueStats();
        for (auto const& [priority, stats] : queueStats.priority()) {
            QueueFigures& queue = queues[{label, priority}];
            queue.runnable += stats.runnableTasks();
            queue.idle += stats.idleTasks();
            queue.dead += stats.deadTasks();
        }
    }

    /// Those that stay so far are ranked while all are gone through: to sort them all would be one long step.
    /// The others are summed up beside the series and added at the end, for one of those that stay may be
    /// named "other" itself.
    Slices sumUpOthers(std::size_t taskNamesMax) {
        constexpr Mox::U32 perSeries = 800;
        std::map<QueueLabels, TaskFigures> others;
        std::set<Ranked> best;
        std::size_t place = 0;
        for (Series at = tasks.begin(); at != tasks.end(); ++place) {
            Mox::Seconds const runTime = at->second.sum.taskTotalRunTime();
            best.insert({std::isnan(runTime) ? -Mox::endOfTime : runTime, place, at});
            ++at;
            if (best.size() > taskNamesMax) {
                auto const series = tasks.extract(best.extract(std::prev(best.end())).value().series);
                others[series.key().queue].add(series.mapped());
            }
            co_yield perSeries;
        }
        co_await freed(best);
        for (auto const& [queue, figures] : others)
            tasks[{queue, "\"other\""}].add(figures);
    }
};

class Exposition : public TextInSlices {
  public:
    Exposition(Mox::Ptr<TaskSchedulerRoot const> root, std::size_t taskNamesMax)
        : root_(std::move(root)), taskNamesMax_(taskNamesMax) {}

  private:
    static constexpr Mox::U32 perSample = 1000;

    /// Family by family: the format wants all samples of one metric in one group.
    Slices make() override {
        co_await measured_.gather(*root_, taskNamesMax_);
        co_await writeTasks();
        co_await writeQueues();
        co_await writeFamily("keltask_scheduler_max_slip_seconds", "gauge",
                             "Longest time from a request for a pass of the scheduler to the pass; "
                             "the thread was held by something else",
                             measured_.slips, [](Mox::Seconds slip) { return slip; });
        co_await measured_.letGo();
    }

    Slices writeTasks() {
        using F = TaskFigures const&;
        auto const& tasks = measured_.tasks;
        co_await writeFamily("keltask_task_runs_total", "counter", "Runs of the tasks of that name", tasks,
                             [](F f) { return Mox::U64{f.sum.taskRun()}; });
        co_await writeFamily("keltask_task_run_seconds_total", "counter",
                             "Time that the runs of the tasks of that name took", tasks,
                             [](F f) { return f.sum.taskTotalRunTime(); });
        co_await writeFamily("keltask_task_last_latency_seconds", "gauge",
                             "Time from being scheduled to leaving the run queue, of the last run", tasks,
                             [](F f) { return f.lastLatency[f.anyLives]; });
        co_await writeFamily("keltask_task_max_latency_seconds", "gauge",
                             "Time from being scheduled to leaving the run queue, at most", tasks,
                             [](F f) { return f.sum.taskSchedulingLatencyHighWaterMark(); });
        family(
            "keltask_task_quantum_violations_total", "counter",
            "Runs that took so many percent of the quantum or more; those of 500 are not among those of 200");
        for (auto const& [task, figures] : tasks) {
            sample(labels(task) + ",limit=\"200\"", Mox::U64{figures.sum.taskQuantumViolation200()});
            sample(labels(task) + ",limit=\"500\"", Mox::U64{figures.sum.taskQuantumViolation500()});
            co_yield 2 * perSample;
        }
    }
    Slices writeQueues() {
        using Q = QueueFigures const&;
        auto const& queues = measured_.queues;
        co_await writeFamily("keltask_runnable_tasks", "gauge", "Tasks on the run queue", queues,
                             [](Q q) { return q.runnable; });
        co_await writeFamily("keltask_idle_tasks", "gauge", "Tasks that are not on the run queue", queues,
                             [](Q q) { return q.idle; });
        co_await writeFamily("keltask_dead_tasks_total", "counter", "Tasks that have died", queues,
                             [](Q q) { return q.dead; });
    }

    template <class Map, class Value>
    Slices writeFamily(std::string_view name, std::string_view type, std::string_view help, Map const& map,
                       Value value) {
        family(name, type, help);
        for (auto const& [key, figures] : map) {
            sample(labels(key), value(figures));
            co_yield perSample;
        }
    }

    void family(std::string_view name, std::string_view type, std::string_view help) {
        name_ = name;
        fmt::format_to(std::back_inserter(text()), "# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
    }
    void sample(std::string const& labels, Mox::U64 value) {
        fmt::format_to(std::back_inserter(text()), "{}{{{}}} {}\n", name_, labels, value);
    }
    void sample(std::string const& labels, double value) {
        std::string const number = std::isnan(value)   ? "NaN"
                                   : std::isinf(value) ? (value > 0 ? "+Inf" : "-Inf")
                                                       : fmt::format("{}", value);
        fmt::format_to(std::back_inserter(text()), "{}{{{}}} {}\n", name_, labels, number);
    }

    Mox::Ptr<TaskSchedulerRoot const> const root_;
    std::size_t const taskNamesMax_;
    Measured measured_;
    std::string_view name_;
};

} // namespace

std::unique_ptr<SlicedText> slicedPrometheus(Mox::Ptr<TaskSchedulerRoot const> const& root,
                                             std::size_t taskNamesMax) {
    MOX_ASSERT(root);
    root->sanityCheckCurrentRunningThread();
    return std::make_unique<Exposition>(root, taskNamesMax);
}

void writePrometheus(Mox::Ptr<TaskSchedulerRoot const> const& root, std::ostream& sink,
                     std::size_t taskNamesMax) {
    writeWhole(sink, wholeText(*slicedPrometheus(root, taskNamesMax)));
}

} // namespace Kel
