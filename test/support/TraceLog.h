#pragma once

#include <mox/TraceHandle.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

/// Collects what a trace handle gets at the given levels while it lives.
class TraceLog {
  public:
    explicit TraceLog(std::vector<Mox::U32> levels, std::string_view name = "TaskScheduler")
        : handle_(Mox::TraceHandle::traceHandle(name)), levels_(std::move(levels)) {
        handle_.sinkIs([this](Mox::TraceRecord const& r) {
            std::string const line = std::to_string(r.level) + ' ' + std::string(r.source) + ' ' +
                                     std::string(r.function) + ": " + std::string(r.text);
            lines_.push_back(std::regex_replace(line, std::regex("@0x[0-9a-f]+"), "@"));
        });
        for (Mox::U32 level : levels_)
            handle_.levelEnabledIs(level, true);
    }
    ~TraceLog() {
        for (Mox::U32 level : levels_)
            handle_.levelEnabledIs(level, false);
        handle_.sinkIs(nullptr);
    }
    TraceLog(TraceLog const&) = delete;
    TraceLog& operator=(TraceLog const&) = delete;

    /// The lines so far, "level source function: text", without the addresses behind "@".
    std::vector<std::string> take() { return std::exchange(lines_, {}); }

  private:
    Mox::TraceHandle& handle_;
    std::vector<Mox::U32> const levels_;
    std::vector<std::string> lines_;
};

} // namespace TestSupport
