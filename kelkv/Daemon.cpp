#include "Daemon.h"

#include <export/ChromeTrace.h>
#include <export/Prometheus.h>

#include <sstream>

namespace KelKv {

namespace {

// Together they leave room under the usual limit of 1024 descriptors.
Port::Role const client{"client", Kel::TaskPriority::normal, false, 960};
Port::Role const operatorRole{"operator", Kel::TaskPriority::high, true, 16};
constexpr std::size_t httpConnectionsMax = 16;

} // namespace

Daemon::Daemon(Mox::Ptr<Kel::EventLoop> const& loop, unsigned short port, unsigned short operatorPort,
               std::optional<boost::asio::ip::tcp::endpoint> const& http)
    : loop_(loop), root_(Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("kelkv", loop)),
      background_(Kel::TaskGroup::TaskGroupIs("background", Kel::TaskPriority::low, true, root_)),
      store_(root_), clients_(*this, client, port), operators_(*this, operatorRole, operatorPort) {
    background_->taskGroupQuantumIs(backgroundQuantum);
    if (http)
        http_.emplace(loop->ioContext(), *http, httpConnectionsMax,
                      [this](boost::asio::ip::tcp::socket socket) {
                          return new HttpConnection(*this, *http_, std::move(socket));
                      });
}

Daemon::~Daemon() {
    if (http_)
        http_->close();
    clients_.close();
    operators_.close();
}

std::string Daemon::statistics() const {
    auto const context = Kel::StringDumpContext::StringDumpContextIs();
    root_->printStats(context, 0, false, true, false, false);
    Kel::objDumpPrintf(context, "%s\n", background_->schedulerName().c_str());
    background_->printStats(context, 0, false, true, false, false);
    return context->text();
}

std::string Daemon::history() const {
    auto const context = Kel::StringDumpContext::StringDumpContextIs();
    root_->printHistory(context, 0);
    return context->text();
}

std::string Daemon::trace() const {
    std::ostringstream text;
    Kel::writeChromeTrace(root_, text);
    return std::move(text).str();
}

std::string Daemon::metrics() const {
    std::ostringstream text;
    Kel::writePrometheus(root_, text);
    return std::move(text).str();
}

} // namespace KelKv
