#pragma once

#include <mox/TraceHandle.h>

#include <boost/noncopyable.hpp>
#include <boost/regex.hpp>

#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

/// Collects what a trace handle gets at the given levels while it lives.
class TraceLog : boost::noncopyable {
  public:
    explicit TraceLog(std::vector<Mox::U32> levels, std::string_view name = "TaskScheduler")
        : handle_(Mox::TraceHandle::traceHandle(name)), levels_(std::move(levels)) {
        handle_.sinkIs([this](Mox::TraceRecord const& r) {
            text_ += std::to_string(r.level) + ' ' + std::string(r.source) + ' ' + std::string(r.function) +
                     ": " + boost::regex_replace(std::string(r.text), boost::regex("@0x[0-9a-f]+"), "@") +
                     '\n';
        });
        for (Mox::U32 level : levels_)
            handle_.levelEnabledIs(level, true);
    }
    ~TraceLog() {
        for (Mox::U32 level : levels_)
            handle_.levelEnabledIs(level, false);
        handle_.sinkIs(nullptr);
    }

    /// The lines "level source function: text" since the last call, without the addresses behind "@".
    std::string take() { return std::exchange(text_, {}); }

  private:
    Mox::TraceHandle& handle_;
    std::vector<Mox::U32> const levels_;
    std::string text_;
};

} // namespace TestSupport
