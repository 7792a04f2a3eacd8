#pragma once

#include <mox/SteadyClock.h>

#include <map>
#include <string_view>

namespace KelKv {

/// Lines on standard error for whoever runs the daemon: what a client did that he should know of.
///
/// Of each kind there is one line a second at most; the next one says how many were left out. So nobody fills
/// a disk by doing it again and again.
class Log {
  public:
    /// The kind is a text that stays.
    void line(std::string_view kind, std::string_view detail);

  private:
    struct Kind {
        Mox::SteadyClock::TimePoint next{};
        Mox::U64 leftOut = 0;
    };
    std::map<std::string_view, Kind> kinds_;
};

} // namespace KelKv
