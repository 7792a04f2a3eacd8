#define MOX_SOURCE_NAME "TaskScheduler"
#include <scheduler/TaskSchedulerReport.h>

#include <scheduler/TaskScheduler.h>
#include <scheduler/detail/IndentedPrint.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

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

} // namespace

/// Sorted by what held the thread longest, so that the first lines answer the first question.
void taskSchedulerDisplay(Context const& context, U32 indent, std::vector<TaskStat>* stats,
                          std::string const& title, U32 leftOut, bool isDeadTable,
                          bool displayMemoryAddressOfTasks) {
    std::ranges::sort(
        *stats, std::greater(), [](TaskStat const& stat) { // a NaN would have no place in the order
            return std::isnan(stat.taskTotalRunTime()) ? -Mox::endOfTime : stat.taskTotalRunTime();
        });
    std::size_t width = 0;
    for (TaskStat const& stat : *stats)
        width = std::max(width, displayedName(stat, displayMemoryAddressOfTasks).size());
    Table const table{context, indent, static_cast<int>(width), isDeadTable};
    table.printHeader(title);
    for (TaskStat const& stat : *stats)
        table.printRow(displayedName(stat, displayMemoryAddressOfTasks), stat);
    if (leftOut != 0)
        KEL_PRINT_INDENTED(context, indent, "Skipped %u task%s with no runs\n", leftOut,
                           leftOut >= 2 ? "s" : "");
    printEmptyLine(context, indent);
}

void printStatsImpl(Context const& context, U32 indent, TaskSchedulerQueueStats const& queueStats,
                    Mox::Seconds maxSchedulerSlip, std::vector<TaskStat>* stats, U32 leftOut,
                    std::vector<TaskStat>* deadStats, U32 deadLeftOut, bool displayMemoryAddressOfTasks) {
    printPriorities(context, indent, queueStats);
    KEL_PRINT_INDENTED(context, indent, "Maximum scheduler slip %.6f seconds\n", maxSchedulerSlip);
    printEmptyLine(context, indent);
    for (LegendLine const& line : legend)
        printLegendLine(context, indent, line);
    if (deadStats)
        printLegendLine(context, indent, deadLegend);
    printEmptyLine(context, indent);
    taskSchedulerDisplay(context, indent, stats, "TaskName", leftOut, false, displayMemoryAddressOfTasks);
    if (deadStats)
        taskSchedulerDisplay(context, indent, deadStats, "TaskName (Dead tasks)", deadLeftOut, true, false);
}

/// All figures are collected before anything is printed: a sink may run tasks, and the tables are to fit
/// together.
void printSchedulerStats(Context const& context, U32 indent, TaskScheduler const& scheduler,
                         bool includeNeverRunTasks, bool includeDeadTasks, bool displayMemoryAddressOfTasks) {
    std::vector<TaskStat> stats;
    std::vector<TaskStat> deadStats;
    U32 const leftOut = scheduler.getTaskStats(&stats, includeNeverRunTasks);
    U32 const deadLeftOut =
        includeDeadTasks ? scheduler.getDeadTaskStats(&deadStats, includeNeverRunTasks) : 0;
    printStatsImpl(context, indent, scheduler.queueStats(), scheduler.schedulerMaxSchedulerSlip(), &stats,
                   leftOut, includeDeadTasks ? &deadStats : nullptr, deadLeftOut,
                   displayMemoryAddressOfTasks);
}

void printHistoryIsInRoot(Context const& context, U32 indent) {
    KEL_PRINT_INDENTED(context, indent,
                       "Scheduler history for non root scheduler included in root scheduler");
}

} // namespace Kel
