#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>

#include <support/RandomRecords.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace {

using TestSupport::operations;
using TestSupport::RandomRecords;

/// Texts and what they are to be in Python's eyes, as the script beside this file reads them.
class Comparison {
  public:
    ~Comparison() { std::filesystem::remove(path_); }

    template <class T> Comparison& text(T const& value) {
        using Mox::valueToStrep;
        ++texts_;
        file_ << (texts_ > 1 ? "\n" : "") << hex(valueToStrep(value));
        return *this;
    }
    Comparison& none(std::string_view path) { return expect(path, "n", ""); }
    Comparison& is(std::string_view path, std::same_as<bool> auto value) {
        return expect(path, "b", value ? "1" : "0");
    }
    Comparison& is(std::string_view path, std::string_view bytes) { return expect(path, "s", hex(bytes)); }
    Comparison& number(std::string_view path, Mox::U64 value) {
        return expect(path, "u", std::to_string(value));
    }
    Comparison& seconds(std::string_view path, double value) {
        char bits[17];
        std::snprintf(bits, sizeof bits, "%016llx",
                      static_cast<unsigned long long>(std::bit_cast<Mox::U64>(value)));
        return expect(path, "d", bits);
    }

    /// Fails unless Python agrees with all of them.
    void run() {
        file_.close();
        auto const script = std::filesystem::path(__FILE__).parent_path() / "compare_with_python.py";
        std::string const command = "python3 '" + script.string() + "' '" + path_ + "' 2>&1";
        FILE* const pipe = popen(command.c_str(), "r");
        ASSERT_TRUE(pipe);
        std::string output;
        for (int c; (c = std::fgetc(pipe)) != EOF;)
            output += static_cast<char>(c);
        EXPECT_EQ(0, pclose(pipe));
        EXPECT_EQ(std::to_string(texts_) + "\n", output);
    }

  private:
    Comparison& expect(std::string_view path, char const* kind, std::string_view value) {
        file_ << ' ' << path << '=' << kind << ':' << value;
        return *this;
    }
    static std::string hex(std::string_view bytes) {
        std::string digits;
        for (char const byte : bytes) {
            char two[3];
            std::snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(byte));
            digits += two;
        }
        return digits;
    }

    std::string const path_ =
        (std::filesystem::temp_directory_path() / ("keltask-text-forms-" + std::to_string(getpid())))
            .string();
    std::ofstream file_{path_};
    std::size_t texts_ = 0;
};

void compareStatus(Comparison& python, std::string const& path, Kel::TaskStat::TaskStatus const& status) {
    python.is(path + "type", "Kel::TaskStat::TaskStatus")
        .is(path + "taskTimer", status.taskTimer())
        .is(path + "taskTimerRunning", status.taskTimerRunning())
        .is(path + "taskOnRunQueue", status.taskOnRunQueue())
        .is(path + "taskCurrentlyRunning", status.taskCurrentlyRunning())
        .is(path + "taskSuspendedForTest", status.taskSuspendedForTest())
        .number(path + "value", status.value());
}

void compareTaskStat(Comparison& python, Kel::TaskStat const& stat) {
    python.text(stat)
        .is("type", "Kel::TaskStat")
        .is("taskName", stat.taskName())
        .number("taskKey", stat.taskKey().value())
        .is("taskPriority", stat.taskPriority().toStrep())
        .number("taskRun", stat.taskRun())
        .seconds("taskTotalRunTime", stat.taskTotalRunTime())
        .number("taskWorkCount", stat.taskWorkCount())
        .number("taskQuantumViolation500", stat.taskQuantumViolation500())
        .number("taskQuantumViolation200", stat.taskQuantumViolation200())
        .seconds("taskRunTimeHighWaterMark", stat.taskRunTimeHighWaterMark())
        .seconds("taskLastSchedulingLatency", stat.taskLastSchedulingLatency())
        .seconds("taskSchedulingLatencyHighWaterMark", stat.taskSchedulingLatencyHighWaterMark())
        .number("taskDeadCount", stat.taskDeadCount());
    compareStatus(python, "taskStatus.", stat.taskStatus());
}

void comparePriorityStats(Comparison& python, Kel::TaskSchedulerPriorityStats const& stats) {
    python.text(stats)
        .is("type", "Kel::TaskSchedulerPriorityStats")
        .is("taskPriority", stats.taskPriority().toStrep())
        .number("runnableTasks", stats.runnableTasks())
        .number("idleTasks", stats.idleTasks())
        .number("deadTasks", stats.deadTasks())
        .number("totalRunCount", stats.totalRunCount());
}

TEST(PythonTextForm, PythonReadsEveryFieldOfEveryRecordAlike) {
    RandomRecords records;
    Comparison python;
    for (std::size_t i = 0; i < operations(5'000); ++i) {
        compareTaskStat(python, records.taskStat());
        comparePriorityStats(python, records.priorityStats());
    }
    for (Mox::U32 value = 0; value <= Kel::TaskStat::TaskStatus::valueMax; ++value) {
        Kel::TaskStat::TaskStatus const status(value);
        compareStatus(python.text(status), "", status);
    }
    python.run();
}

TEST(PythonTextForm, PythonReadsSingleValuesAlike) {
    RandomRecords records;
    Comparison python;
    python.text(Kel::TaskSchedulerQueueStats()).none("");
    python.text(true).is("", true).text(false).is("", false);
    for (int byte = 0; byte < 256; ++byte)
        for (char const* const around : {"", "a", "\\", "0", "'"}) {
            Mox::String const name = around + std::string(1, static_cast<char>(byte)) + around;
            python.text(name).is("", name);
        }
    for (std::size_t i = 0; i < operations(10'000); ++i) {
        double const seconds = records.seconds();
        python.text(seconds).seconds("", seconds);
        auto const key = Kel::TaskKey(records.number<Mox::U64>());
        python.text(key).number("", key.value());
        auto const id = Kel::ProcessId(records.number<Mox::S64>());
        python.text(id).number("", static_cast<Mox::U64>(id.value()));
        auto const priority = records.priority();
        python.text(priority).is("", priority.toStrep());
    }
    python.run();
}

} // namespace
