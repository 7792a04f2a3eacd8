#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerReport.h>

#include <kel/detail/Slices.h>
#include <mox/Assert.h>
#include <scheduler/TaskSchedulerRoot.h>
#include <scheduler/detail/HistoryLines.h>
#include <scheduler/detail/IndentedPrint.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>

namespace Kel {

using Context = Mox::Ptr<DumpContext const>;
using Mox::U32;

namespace {

struct LegendLine {
    char const* key;
    char const* text;
};

constexpr std::array legend{
    LegendLine{"SP", "= Task status and priority, two characters:"},
    LegendLine{"   first", "  T/t for active/idle timers, * for running task or blank"},
    LegendLine{"   second", "  priority and runnable status, upper case for runnable"},
    LegendLine{"RunCount", "= Number of times task has run"},
    LegendLine{"TotalSec", "= Total run time in seconds"},
    LegendLine{"WorkCount", "= Optional counter of work units processed"},
    LegendLine{"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    LegendLine{"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    LegendLine{"200% 500%", "= Number of times task used this percentage of quantum"},
    LegendLine{"MaxMs", "= Maximum single run time in milliseconds"},
};
constexpr LegendLine deadLegend{"Dead", "= Number of times a task with this name has died"};

void printEmptyLine(Context const& context, U32 indent) { KEL_PRINT_INDENTED(context, indent, "\n"); }

void printPriorities(Context const& context, U32 indent, TaskSchedulerQueueStats const& queueStats) {
    KEL_PRINT_INDENTED(context, indent, "%-8s %13s %13s %9s %15s\n", "Priority", "RunnableCount", "IdleCount",
                       "DeadCount", "TotalRunCount");
    KEL_PRINT_INDENTED(context, indent, "%s\n", std::string(62, '-').c_str());
    for (U32 p = 0; p <= TaskPriority::scavenge; ++p) {
        TaskPriority const priority = TaskPriority::PriorityEnumInstance(p);
        TaskSchedulerPriorityStats const* const entry = queueStats.priority(priority);
        TaskSchedulerPriorityStats const stats = entry ? *entry : TaskSchedulerPriorityStats(priority);
        KEL_PRINT_INDENTED(context, indent, "%-8s %13u %13u %9u %15llu\n", priority.toStrep().c_str(),
                           stats.runnableTasks(), stats.idleTasks(), stats.deadTasks(),
                           static_cast<unsigned long long>(stats.totalRunCount()));
    }
}

void printLegendLine(Context const& context, U32 indent, LegendLine const& line) {
    KEL_PRINT_INDENTED(context, indent, "%-9s %s\n", line.key, line.text);
}

std::string displayedName(TaskStat const& stat, bool displayMemoryAddress) {
    std::string const& name = stat.taskName();
    return displayMemoryAddress ? name + stat.taskKey().toStrep() : name;
}

/// A task that ran and reports no work shows "-"; one that never ran shows "0".
std::string displayedWorkCount(TaskStat const& stat) {
    return stat.taskWorkCount() == 0 && stat.hasRun() ? "-" : std::to_string(stat.taskWorkCount());
}

/// Whole milliseconds, truncated; what does not fit (a record may hold anything) is clamped.
U32 milliseconds(Mox::Seconds seconds) {
    constexpr double most = std::numeric_limits<U32>::max();
    return static_cast<U32>(std::fmin(std::fmax(seconds * 1000, 0.0), most)); // a NaN gives 0
}

struct Table {
    Context const& context;
    U32 indent;
    int nameWidth;
    bool isDead;

    void printHeader(std::string const& title) const {
        if (isDead)
            KEL_PRINT_INDENTED(context, indent, "%-*s %2s %10s %13s %10s %14s %4s %4s %5s %4s\n", nameWidth,
                               title.c_str(), "SP", "RunCount", "TotalSec", "WorkCount", "Last/Max-Delay",
                               "200%", "500%", "MaxMs", "Dead");
        else
            KEL_PRINT_INDENTED(context, indent, "%-*s %2s %10s %13s %10s %14s %4s %4s %5s\n", nameWidth,
                               title.c_str(), "SP", "RunCount", "TotalSec", "WorkCount", "Last/Max-Delay",
                               "200%", "500%", "MaxMs");
    }

    void printRow(std::string const& name, TaskStat const& stat) const {
        std::string const status = stat.taskStatusString();
        std::string const work = displayedWorkCount(stat);
        U32 const maxMs = milliseconds(stat.taskRunTimeHighWaterMark());
        if (isDead)
            KEL_PRINT_INDENTED(context, indent, "%-*s %2s %10u %13.3f %10s %6.3f %7.3f %4u %4u %5u %4u\n",
                               nameWidth, name.c_str(), status.c_str(), stat.taskRun(),
                               stat.taskTotalRunTime(), work.c_str(), stat.taskLastSchedulingLatency(),
                               stat.taskSchedulingLatencyHighWaterMark(), stat.taskQuantumViolation200(),
                               stat.taskQuantumViolation500(), maxMs, stat.taskDeadCount());
        else
            KEL_PRINT_INDENTED(context, indent, "%-*s %2s %10u %13.3f %10s %6.3f %7.3f %4u %4u %5u\n",
                               nameWidth, name.c_str(), status.c_str(), stat.taskRun(),
                               stat.taskTotalRunTime(), work.c_str(), stat.taskLastSchedulingLatency(),
                               stat.taskSchedulingLatencyHighWaterMark(), stat.taskQuantumViolation200(),
                               stat.taskQuantumViolation500(), maxMs);
    }
};

/// By what held the thread longest, so that the first lines answer the first question. A NaN would have no
/// place in the order.
Mox::Seconds rank(TaskStat const& stat) {
    return std::isnan(stat.taskTotalRunTime()) ? -Mox::endOfTime : stat.taskTotalRunTime();
}

void printLeftOut(Context const& context, U32 indent, U32 leftOut) {
    if (leftOut != 0)
        KEL_PRINT_INDENTED(context, indent, "Skipped %u task%s with no runs\n", leftOut,
                           leftOut >= 2 ? "s" : "");
    printEmptyLine(context, indent);
}

void printHead(Context const& context, U32 indent, TaskSchedulerQueueStats const& queueStats,
               Mox::Seconds maxSchedulerSlip, bool hasDeadTable) {
    printPriorities(context, indent, queueStats);
    KEL_PRINT_INDENTED(context, indent, "Maximum scheduler slip %.6f seconds\n", maxSchedulerSlip);
    printEmptyLine(context, indent);
    for (LegendLine const& line : legend)
        printLegendLine(context, indent, line);
    if (hasDeadTable)
        printLegendLine(context, indent, deadLegend);
    printEmptyLine(context, indent);
}

constexpr char const* livingTitle = "TaskName";
constexpr char const* deadTitle = "TaskName (Dead tasks)";

/// The report in slices. Its tables are sorted as they are gathered.
class StatsText : public TextInSlices {
  public:
    StatsText(Mox::Ptr<TaskScheduler const> scheduler, bool includeNeverRunTasks, bool includeDeadTasks)
        : root_(scheduler->root()), scheduler_(std::move(scheduler)),
          includeNeverRunTasks_(includeNeverRunTasks), includeDeadTasks_(includeDeadTasks) {}

  private:
    struct Rows {
        std::multimap<Mox::Seconds, TaskStat, std::greater<>> byRank;
        std::size_t width = 0;
        U32 leftOut = 0;
    };
    class Sink : public DumpContext {
      public:
        explicit Sink(StatsText& report) : report_(report) {}
        void write(std::string_view text) const override { report_.text() += text; }

      private:
        StatsText& report_;
    };
    static constexpr U32 perFigures = 1000, perRow = 2000;

    Slices make() override {
        TaskSchedulerQueueStats const queueStats = scheduler_->queueStats();
        Mox::Seconds const slip = scheduler_->schedulerMaxSchedulerSlip();
        Rows living, dead;
        co_await gather(scheduler_->tasksRegistered(), living);
        if (includeDeadTasks_)
            co_await gather(scheduler_->deadTaskStats(), dead);
        printHead(sink_, 0, queueStats, slip, includeDeadTasks_);
        co_yield Slices::whole;
        co_await print(living, livingTitle, false);
        if (includeDeadTasks_)
            co_await print(dead, deadTitle, true);
    }

    Slices gather(TaskScheduler::TasksRegistered const& tasks, Rows& rows) {
        for (Task const* task = tasks.first(); task;) {
            TaskKey const key = task->taskKey();
            add(rows, task->getStats());
            task = (co_yield perFigures) ? tasks.behind(key) : tasks.after(task);
        }
    }
    Slices gather(TaskScheduler::DeadTaskStats const& stats, Rows& rows) {
        for (auto at = stats.begin(); at != stats.end();) {
            Mox::String const name = at->first;
            add(rows, TaskStat(at->second));
            co_yield perFigures;
            at = stats.iteratorBehind(name);
        }
    }
    void add(Rows& rows, TaskStat&& stat) const {
        if (!includeNeverRunTasks_ && !stat.hasRun()) {
            ++rows.leftOut;
            return;
        }
        rows.width = std::max(rows.width, stat.taskName().size());
        rows.byRank.emplace(rank(stat), std::move(stat));
    }

    /// A row goes when it is printed.
    Slices print(Rows& rows, char const* title, bool isDead) {
        Table const table{sink_, 0, static_cast<int>(rows.width), isDead};
        table.printHeader(title);
        for (auto row = rows.byRank.begin(); row != rows.byRank.end(); row = rows.byRank.erase(row)) {
            table.printRow(row->second.taskName(), row->second);
            co_yield perRow;
        }
        printLeftOut(sink_, 0, rows.leftOut);
    }

    Mox::Ptr<TaskSchedulerRoot const> const root_; // which the scheduler does not hold
    Mox::Ptr<TaskScheduler const> const scheduler_;
    bool const includeNeverRunTasks_, includeDeadTasks_;
    Context const sink_ = new Sink(*this);
};

} // namespace

void taskSchedulerDisplay(Context const& context, U32 indent, std::vector<TaskStat>* stats,
                          std::string const& title, U32 leftOut, bool isDeadTable,
                          bool displayMemoryAddressOfTasks) {
    std::ranges::stable_sort(*stats, std::greater(), rank);
    std::size_t width = 0;
    for (TaskStat const& stat : *stats)
        width = std::max(width, displayedName(stat, displayMemoryAddressOfTasks).size());
    Table const table{context, indent, static_cast<int>(width), isDeadTable};
    table.printHeader(title);
    for (TaskStat const& stat : *stats)
        table.printRow(displayedName(stat, displayMemoryAddressOfTasks), stat);
    printLeftOut(context, indent, leftOut);
}

void printStatsImpl(Context const& context, U32 indent, TaskSchedulerQueueStats const& queueStats,
                    Mox::Seconds maxSchedulerSlip, std::vector<TaskStat>* stats, U32 leftOut,
                    std::vector<TaskStat>* deadStats, U32 deadLeftOut, bool displayMemoryAddressOfTasks) {
    printHead(context, indent, queueStats, maxSchedulerSlip, deadStats != nullptr);
    taskSchedulerDisplay(context, indent, stats, livingTitle, leftOut, false, displayMemoryAddressOfTasks);
    if (deadStats)
        taskSchedulerDisplay(context, indent, deadStats, deadTitle, deadLeftOut, true, false);
}

std::unique_ptr<SlicedText> slicedStats(Mox::Ptr<TaskScheduler const> const& scheduler,
                                        bool includeNeverRunTasks, bool includeDeadTasks) {
    MOX_ASSERT(scheduler);
    scheduler->sanityCheckCurrentRunningThread();
    return std::make_unique<StatsText>(scheduler, includeNeverRunTasks, includeDeadTasks);
}

std::unique_ptr<SlicedLines> slicedHistory(Mox::Ptr<TaskSchedulerRoot const> const& root) {
    MOX_ASSERT(root);
    root->sanityCheckCurrentRunningThread();
    return std::make_unique<HistoryLines>(root);
}

} // namespace Kel
