#define MOX_SOURCE_NAME "Export"
#include <export/ChromeTrace.h>

#include <export/detail/HistoryRuns.h>
#include <export/detail/OutputText.h>
#include <mox/Assert.h>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>

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

class ChromeTrace : public TextInSlices {
  public:
    explicit ChromeTrace(Mox::Ptr<TaskSchedulerRoot const> root) : root_(std::move(root)) {}

  private:
    static constexpr Mox::U32 perEvent = 1200; // written

    Slices make() override {
        lanes_.emplace(*root_);
        co_yield Slices::whole;
        co_await lanes_->make();
        text() += "{\"traceEvents\":[";
        co_await writeNames();
        co_await writeRuns();
        co_await writeInstants();
        co_await writeQueueLengths();
        text() += "\n],\"displayTimeUnit\":\"ns\"}\n";
        co_await lanes_->letGo();
    }

    Microseconds time(TaskTimeStamp const& stamp) const { return {elapsed(lanes_->begin(), stamp)}; }

    /// Appends an event of that phase; the arguments of the format are its further members.
    template <class... Members>
    void event(char phase, fmt::format_string<Members...> format, Members&&... members) {
        fmt::format_to(std::back_inserter(text()), "{}\n{{\"ph\":\"{}\",\"pid\":1,", isFirst_ ? "" : ",",
                       phase);
        fmt::format_to(std::back_inserter(text()), format, std::forward<Members>(members)...);
        text() += '}';
        isFirst_ = false;
    }

    Slices writeNames() {
        event('M', R"("name":"process_name","args":{{"name":{}}})", jsonString(lanes_->rootName()));
        for (auto const& [key, lane] : lanes_->lanes()) {
            event('M', R"("tid":{},"name":"thread_name","args":{{"name":{}}})", lane.number,
                  jsonString(laneName(key)));
            event('M', R"("tid":{0},"name":"thread_sort_index","args":{{"sort_index":{0}}})", lane.number);
            co_yield 3 * perEvent;
        }
    }
    static std::string laneName(HistoryLanes::Key const& key) {
        return fmt::format("{} {}", std::get<1>(key), std::get<2>(key).toStrep());
    }

    Slices writeRuns() {
        HistoryRuns runs(lanes_->begin());
        for (HistoryEvent const& event : lanes_->events()) {
            runs.add(event);
            co_yield 50;
        }
        runs.finish(lanes_->now());
        while (auto const run = runs.take()) {
            writeRun(*run);
            co_yield 2 * perEvent;
        }
    }

    /// Of a run that the history cut off, only what is known is told: a percentage or a violation of a part
    /// would be taken for that of the whole. A clock that went back makes a slice of no length: no viewer
    /// draws a negative one.
    void writeRun(HistoryRun const& run) {
        HistoryTask const& task = *run.task;
        TaskTimeDuration const length = std::max(elapsed(run.start, run.end), TaskTimeDuration(0));
        Percentage const percentage(length, task.quantum);
        std::string arguments;
        auto const argument = [&](auto format, auto const& value) {
            fmt::format_to(std::back_inserter(arguments), "{}", arguments.empty() ? "" : ",");
            fmt::format_to(std::back_inserter(arguments), format, value);
        };
        if (run.latency)
            argument(FMT_STRING("\"latency_us\":{}"), Microseconds{*run.latency});
        if (run.isWhole() && percentage.exists())
            argument(FMT_STRING("\"quantum_percent\":{:.1f}"), percentage.value());
        if (run.isWhole() && !task.isAlive)
            argument(FMT_STRING("\"about\":{}"), true);
        if (!run.isWhole())
            argument(FMT_STRING("\"cut\":\"{}\""), run.startIsKnown ? "end" : "beginning");
        event('X', R"("tid":{},"ts":{},"dur":{},"cat":"run","name":{},"args":{{{}}})", task.lane->number,
              time(run.start), Microseconds{length}, task.name, arguments);
        if (int const limit = percentage.limitReached(); limit != 0 && run.isWhole())
            writeTaskInstant(task, run.end,
                             fmt::format(FMT_STRING("{}{}% violation"), task.isAlive ? "" : "about ", limit));
    }

    Slices writeInstants() {
        for (HistoryEvent const& event : lanes_->events()) {
            char const* const name = instantName(event.type);
            if (name)
                writeInstant(event, name);
            co_yield name ? perEvent : 10;
        }
    }

    /// What happened to a scheduler as a whole has no task, and so no lane: it is drawn over all of them.
    void writeInstant(HistoryEvent const& event, char const* name) {
        if (event.task)
            writeTaskInstant(*event.task, event.at, name);
        else
            this->event('i', R"("s":"p","tid":1,"ts":{},"cat":"scheduler","name":"{}")", time(event.at),
                        name);
    }

    void writeTaskInstant(HistoryTask const& task, TaskTimeStamp const& stamp, std::string_view name) {
        event('i', R"("s":"t","tid":{},"ts":{},"cat":"task","name":"{}","args":{{"task":{}}})",
              task.lane->number, time(stamp), name, task.name);
    }

    /// By lane, not by scheduler: schedulers of one name share a lane, and two counters in one would be drawn
    /// as one that jumps.
    Slices writeQueueLengths() {
        for (HistoryEvent const& event : lanes_->events()) {
            std::size_t const lookedAt = event.task ? event.task->lane->queueLength.add(event) : 0;
            co_yield static_cast<Mox::U32>(50 + lookedAt);
        }
        for (auto& [key, lane] : lanes_->lanes()) {
            HistoryQueueLength& queueLength = lane.queueLength;
            queueLength.finish(lanes_->now(), lane.runnableTasks);
            std::string const name = jsonString("run queue of " + laneName(key));
            Mox::S64 length = queueLength.atBegin();
            writeQueueLength(lane, name, lanes_->begin(), length);
            for (auto const& change : queueLength.changes()) {
                writeQueueLength(lane, name, change.at, length += change.by);
                co_yield perEvent;
            }
        }
    }
    void writeQueueLength(HistoryLane const& lane, std::string const& name, TaskTimeStamp const& from,
                          Mox::S64 length) {
        event('C', R"("tid":{},"ts":{},"name":{},"args":{{"tasks":{}}})", lane.number, time(from), name,
              length);
    }

    Mox::Ptr<TaskSchedulerRoot const> const root_;
    std::optional<HistoryLanes> lanes_;
    bool isFirst_ = true; // event
};

} // namespace

std::unique_ptr<SlicedText> slicedChromeTrace(Mox::Ptr<TaskSchedulerRoot const> const& root) {
    MOX_ASSERT(root);
    root->sanityCheckCurrentRunningThread();
    return std::make_unique<ChromeTrace>(root);
}

/// The whole text before the sink gets any of it: what a sink does may change the tree.
void writeChromeTrace(Mox::Ptr<TaskSchedulerRoot const> const& root, std::ostream& sink) {
    writeWhole(sink, wholeText(*slicedChromeTrace(root)));
}

} // namespace Kel
