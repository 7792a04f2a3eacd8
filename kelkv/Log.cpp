#include "Log.h"

#include <iostream>

namespace KelKv {

void Log::line(std::string_view kind, std::string_view detail) {
    auto const now = Mox::SteadyClock::now();
    auto const at = kinds_.find(kind);
    Kind& of = at == kinds_.end() ? kinds_[std::string(kind)] : at->second;
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
