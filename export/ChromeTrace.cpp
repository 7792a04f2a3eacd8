#define MOX_SOURCE_NAME "Export"
#include <export/ChromeTrace.h>

#include <export/detail/HistoryLanes.h>
#include <export/detail/HistoryQueueLength.h>
#include <export/detail/HistoryRuns.h>
#include <export/detail/OutputText.h>
#include <mox/Assert.h>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Kel {

namespace {

/// Microseconds with three decimals: no nanosecond is lost, as it would be in a double.
struct Microseconds {
    TaskTimeDuration time;
};

} // namespace

} // namespace Kel

template <> struct fmt::formatter<Kel::Microseconds> {
    constexpr auto parse(format_parse_context& context) { return context.begin(); }
    template <class Context> auto format(Kel::Microseconds const& value, Context& context) const {
        Mox::S64 const count = value.time.count();
        Mox::U64 const size = count < 0 ? 0 - static_cast<Mox::U64>(count) : static_cast<Mox::U64>(count);
        return fmt::format_to(context.out(), "{}{}.{:03}", count < 0 ? "-" : "", size / 1000, size % 1000);
    }
};

namespace Kel {

namespace {

/// What an instant says of an event; null for events that are shown otherwise or not at all.
char const* instantName(TaskSchedulerEventType type) {
    using enum TaskSchedulerEventType;
    switch (type) {
    case timerStart: return "timer started";
    case timerStop: return "timer stopped";
    case suspendOn: return "suspended";
    case suspendOff: return "resumed";
    case scheduleSus: return "scheduled while suspended";
    case frcYieldOn: return "forced to yield";
    case frcYieldOff: return "no longer forced to yield";
    case schedulerSuspended: return "scheduler suspended";
    case schedulerUnsuspended: return "scheduler resumed";
    case schedulerRunIgnoredWhileSuspended: return "run ignored while suspended";
    default: return nullptr;
    }
}

/// A run against its task's quantum. Whether it is a violation is counted in nanoseconds, as the task does
/// it: by the percentage, which is a double, a run of exactly two quanta might be none.
class Percentage {
  public:
    Percentage(TaskTimeDuration length, TaskTimeDuration quantum) : length_(length), quantum_(quantum) {}

    /// A task that is forced to yield has none.
    bool exists() const { return quantum_ > TaskTimeDuration(0); }
    /// Requires: it exists.
    double value() const { return Mox::toSeconds(length_) / Mox::toSeconds(quantum_) * 100; }
    /// 500, 200, or 0 for no violation.
    int limitReached() const { return length_ >= 5 * quantum_ ? 500 : length_ >= 2 * quantum_ ? 200 : 0; }

  private:
    TaskTimeDuration length_;
    TaskTimeDuration quantum_;
};

class ChromeTrace {
  public:
    explicit ChromeTrace(TaskSchedulerRoot const& root)
        : root_(root), lanes_(root), now_(Mox::SteadyClock::now()) {
        if (!root.history().empty())
            begin_ = std::prev(root.history().end())->timeStamp();
    }

    /// The whole text before the sink gets any of it: what a sink does may change the tree.
    std::string text() {
        writeNames();
        for (HistoryRun const& run : historyRuns(root_.history(), now_))
            writeRun(run);
        for (auto const& event : oldestFirst(root_.history()))
            writeInstant(event);
        writeQueueLengths();
        return "{\"traceEvents\":[" + text_ + "\n],\"displayTimeUnit\":\"ns\"}\n";
    }

  private:
    Microseconds time(TaskTimeStamp const& stamp) const { return {elapsed(begin_, stamp)}; }

    /// Appends an event of that phase; the arguments of the format are its further members.
    template <class... Members>
    void event(char phase, fmt::format_string<Members...> format, Members&&... members) {
        fmt::format_to(std::back_inserter(text_), "{}\n{{\"ph\":\"{}\",\"pid\":1,", text_.empty() ? "" : ",",
                       phase);
        fmt::format_to(std::back_inserter(text_), format, std::forward<Members>(members)...);
        text_ += '}';
    }

    void writeNames() {
        event('M', R"("name":"process_name","args":{{"name":{}}})", jsonString(root_.schedulerName()));
        for (auto const& [key, lane] : lanes_.lanes()) {
            event('M', R"("tid":{},"name":"thread_name","args":{{"name":{}}})", lane.number,
                  jsonString(laneName(key)));
            event('M', R"("tid":{0},"name":"thread_sort_index","args":{{"sort_index":{0}}})", lane.number);
        }
    }
    static std::string laneName(HistoryLanes::Key const& key) {
        return fmt::format("{} {}", std::get<1>(key), std::get<2>(key).toStrep());
    }

    /// Of a run that the history cut off, only what is known is told: a percentage or a violation of a part
    /// would be taken for that of the whole. A clock that went back makes a slice of no length: no viewer
    /// draws a negative one.
    void writeRun(HistoryRun const& run) {
        HistoryTask const& task = lanes_.task(*run.task);
        TaskTimeDuration const length = std::max(elapsed(run.start, run.end), TaskTimeDuration(0));
        Percentage const percentage(length, run.task->taskQuantum());
        std::string arguments;
        auto const argument = [&](auto format, auto const& value) {
            fmt::format_to(std::back_inserter(arguments), "{}", arguments.empty() ? "" : ",");
            fmt::format_to(std::back_inserter(arguments), format, value);
        };
        if (run.latency)
            argument(FMT_STRING("\"latency_us\":{}"), Microseconds{*run.latency});
        if (run.isWhole() && percentage.exists())
            argument(FMT_STRING("\"quantum_percent\":{:.1f}"), percentage.value());
        if (run.isWhole() && !run.task->isAlive())
            argument(FMT_STRING("\"about\":{}"), true);
        if (!run.isWhole())
            argument(FMT_STRING("\"cut\":\"{}\""), run.startIsKnown ? "end" : "beginning");
        event('X', R"("tid":{},"ts":{},"dur":{},"cat":"run","name":{},"args":{{{}}})", task.lane->number,
              time(run.start), Microseconds{length}, task.name, arguments);
        if (int const limit = percentage.limitReached(); limit != 0 && run.isWhole())
            writeTaskInstant(
                *run.task, run.end,
                fmt::format(FMT_STRING("{}{}% violation"), run.task->isAlive() ? "" : "about ", limit));
    }

    /// What happened to a scheduler as a whole has no task, and so no lane: it is drawn over all of them.
    void writeInstant(TaskSchedulerHistory::Event const& event) {
        char const* const name = instantName(event.eventType());
        if (!name)
            return;
        if (event.task())
            return writeTaskInstant(*event.task(), event.timeStamp(), name);
        this->event('i', R"("s":"p","tid":1,"ts":{},"cat":"scheduler","name":"{}")", time(event.timeStamp()),
                    name);
    }

    void writeTaskInstant(TaskRecord const& record, TaskTimeStamp const& stamp, std::string_view name) {
        HistoryTask const& task = lanes_.task(record);
        event('i', R"("s":"t","tid":{},"ts":{},"cat":"task","name":"{}","args":{{"task":{}}})",
              task.lane->number, time(stamp), name, task.name);
    }

    /// By lane, not by scheduler: schedulers of one name share a lane, and two counters in one would be drawn
    /// as one that jumps.
    void writeQueueLengths() {
        std::map<HistoryLane const*, HistoryQueueLength> lengths;
        for (auto const& event : oldestFirst(root_.history()))
            if (event.task())
                lengths[lanes_.task(*event.task()).lane].add(event);
        for (auto const& [key, lane] : lanes_.lanes()) {
            std::string const name = jsonString("run queue of " + laneName(key));
            for (auto const& point : lengths[&lane].finish(begin_, now_, lane.runnableTasks))
                event('C', R"("tid":{},"ts":{},"name":{},"args":{{"tasks":{}}})", lane.number, time(point.at),
                      name, point.length);
        }
    }

    TaskSchedulerRoot const& root_;
    HistoryLanes const lanes_;
    TaskTimeStamp const now_;
    TaskTimeStamp begin_ = now_;
    std::string text_;
};

} // namespace

void writeChromeTrace(Mox::Ptr<TaskSchedulerRoot const> const& root, std::ostream& sink) {
    MOX_ASSERT(root);
    root->sanityCheckCurrentRunningThread();
    writeWhole(sink, ChromeTrace(*root).text());
}

} // namespace Kel
