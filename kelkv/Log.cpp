#include "Log.h"

#include <iostream>

namespace KelKv {

void Log::line(std::string_view kind, std::string_view detail) {
    auto const now = Mox::SteadyClock::now();
    Kind& of = kinds_[kind];
    if (now < of.next) {
        ++of.leftOut;
        return;
    }
    std::cerr << "kelkv: " << kind << ": " << detail;
    if (of.leftOut > 0)
        std::cerr << " (" << of.leftOut << " more before)";
    std::cerr << std::endl;
    of = {now + boost::chrono::seconds(1)};
}

} // namespace KelKv
