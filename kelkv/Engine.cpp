#include "Engine.h"

#include <export/ChromeTrace.h>
#include <export/Prometheus.h>
#include <scheduler/TaskSchedulerReport.h>

#include <sstream>

namespace KelKv {

namespace {

/// A metric of each port.
struct PortMetric {
    char const* name;
    char const* type;
    char const* help;
    Mox::U64 (*figure)(Engine::Port const& port);
};

constexpr PortMetric portMetrics[] = {
    {"connections", "gauge", "Connections that are open.", [](auto& of) { return Mox::U64{of.connections}; }},
    {"connections_max", "gauge", "Connections that there may be.",
     [](auto& of) { return Mox::U64{of.connectionsMax}; }},
    {"connections_accepted_total", "counter", "Connections that were served.",
     [](auto& of) { return of.accepted; }},
    {"connections_refused_total", "counter", "Connections that were too many.",
     [](auto& of) { return of.refused; }},
    {"connections_displaced_total", "counter", "Idle connections that were closed to make room.",
     [](auto& of) { return of.displaced; }},
};

/// A metric of memory that clients share.
struct MemoryMetric {
    char const* name;
    char const* type;
    char const* help;
    Mox::U64 (*figure)(ByteLimit const& limit);
};

constexpr MemoryMetric memoryMetrics[] = {
    {"shared_bytes", "gauge", "What clients together take of memory.",
     [](auto& of) { return Mox::U64{of.used()}; }},
    {"shared_bytes_max", "gauge", "What they may take.", [](auto& of) { return Mox::U64{of.most()}; }},
    {"shared_bytes_refused_total", "counter", "Requests and replies that were given up for it.",
     [](auto& of) { return of.refused(); }},
};

void printHead(std::ostream& out, char const* name, char const* type, char const* help) {
    out << "# HELP kelkv_" << name << " " << help << "\n# TYPE kelkv_" << name << " " << type << "\n";
}

std::string metricsOfOurOwn(Engine const& engine) {
    Engine::Ports const ports = engine.ports();
    std::ostringstream out;
    for (PortMetric const& metric : portMetrics) {
        printHead(out, metric.name, metric.type, metric.help);
        for (auto const& [label, port] :
             {std::pair("clients", ports.clients), {"operators", ports.operators}, {"http", ports.http}})
            if (port.connectionsMax > 0)
                out << "kelkv_" << metric.name << "{port=\"" << label << "\"} " << metric.figure(port)
                    << "\n";
    }
    for (MemoryMetric const& metric : memoryMetrics) {
        printHead(out, metric.name, metric.type, metric.help);
        for (Engine::Limit const& limit : engine.limits())
            out << "kelkv_" << metric.name << "{of=\"" << limit.name << "\"} " << metric.figure(limit.of)
                << "\n";
    }
    printHead(out, "keys", "gauge", "Keys in the store.");
    out << "kelkv_keys " << engine.store.size() << "\n";
    return std::move(out).str();
}

} // namespace

Engine::Engine(Mox::Ptr<Kel::EventLoop> const& loop)
    : root(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("kelkv", loop)),
      background(Kel::TaskGroup::TaskGroupIs("background", Kel::TaskPriority::low, true, root)),
      scavenger(new Scavenger(root)), store(root, scavenger) {
    background->taskGroupQuantumIs(backgroundQuantum);
}

std::array<Engine::Limit, 4> Engine::limits() const {
    return {
        {{"request", requestBytes}, {"walk", walkBytes}, {"operator", operatorBytes}, {"reply", replyBytes}}};
}

SlicedTextPtr Engine::statistics() const {
    auto text = std::make_unique<TextSequence>();
    text->add(Kel::slicedStats(root));
    text->add(background->schedulerName() + "\n");
    text->add(Kel::slicedStats(background));
    return text;
}

SlicedTextPtr Engine::history() const { return Kel::slicedHistory(root); }

SlicedTextPtr Engine::trace() const { return Kel::slicedChromeTrace(root); }

SlicedTextPtr Engine::metrics() const {
    auto text = std::make_unique<TextSequence>();
    text->add(Kel::slicedPrometheus(root));
    text->add(metricsOfOurOwn(*this));
    return text;
}

} // namespace KelKv
