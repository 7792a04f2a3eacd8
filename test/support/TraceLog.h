#pragma once

#include <mox/TraceHandle.h>

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
            text_ += std::to_string(r.level) + ' ' + std::string(r.source) + ' ' + std::string(r.function) +
                     ": " + withoutAddresses(r.text) + '\n';
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

    /// The lines "level source function: text" since the last call, without the addresses behind "@".
    std::string take() { return std::exchange(text_, {}); }

  private:
    static std::string withoutAddresses(std::string_view text) {
        std::string result(text);
        for (auto at = result.find("@0x"); at != std::string::npos; at = result.find("@0x", at))
            result.erase(at + 1, result.find_first_not_of("0123456789abcdef", at + 3) - at - 1);
        return result;
    }

    Mox::TraceHandle& handle_;
    std::vector<Mox::U32> const levels_;
    std::string text_;
};

} // namespace TestSupport
