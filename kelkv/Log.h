#pragma once

#include <mox/SteadyClock.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace KelKv {

/// Lines on standard error for whoever runs the daemon: what a client did that he should know of.
///
/// Of each kind there is one line a second at most; the next one says how many were left out. So nobody fills
/// a disk by doing it again and again.
class Log {
  public:
    void line(std::string_view kind, std::string_view detail);

  private:
    struct Kind {
        Mox::SteadyClock::TimePoint next{};
        Mox::U64 leftOut = 0;
    };
    std::map<std::string, Kind, std::less<>> kinds_;
};

} // namespace KelKv
