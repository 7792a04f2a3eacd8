#include "Engine.h"

#include <export/ChromeTrace.h>
#include <export/Prometheus.h>

#include <sstream>

namespace KelKv {

Engine::Engine(Mox::Ptr<Kel::EventLoop> const& loop)
    : root(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("kelkv", loop)),
      background(Kel::TaskGroup::TaskGroupIs("background", Kel::TaskPriority::low, true, root)), store(root) {
    background->taskGroupQuantumIs(backgroundQuantum);
}

std::string Engine::statistics() const {
    auto const context = Kel::StringDumpContext::StringDumpContextIs();
    root->printStats(context, 0, false, true, false, false);
    Kel::objDumpPrintf(context, "%s\n", background->schedulerName().c_str());
    background->printStats(context, 0, false, true, false, false);
    return context->text();
}

std::string Engine::history() const {
    auto const context = Kel::StringDumpContext::StringDumpContextIs();
    root->printHistory(context, 0);
    return context->text();
}

std::string Engine::trace() const {
    std::ostringstream text;
    Kel::writeChromeTrace(root, text);
    return std::move(text).str();
}

std::string Engine::metrics() const {
    std::ostringstream text;
    Kel::writePrometheus(root, text);
    return std::move(text).str();
}

} // namespace KelKv
