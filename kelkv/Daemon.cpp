#include "Daemon.h"

#include "HttpPage.h"
#include "RespConnection.h"

namespace KelKv {

namespace {

using boost::asio::ip::tcp;

// Together they leave room under the usual limit of 1024 descriptors.
constexpr std::size_t clientsMax = 960;
constexpr std::size_t operatorsMax = 16;
constexpr std::size_t httpConnectionsMax = 16;

constexpr RespConnection::Role client{"client", Kel::TaskPriority::normal, false};
constexpr RespConnection::Role operatorRole{"operator", Kel::TaskPriority::high, true};

tcp::endpoint onLoopback(unsigned short port) { return {boost::asio::ip::address_v4::loopback(), port}; }

Listener::Make serve(Engine& engine, RespConnection::Role const& role) {
    return [&](tcp::socket socket) { return new RespConnection(engine, role, std::move(socket)); };
}

std::vector<HttpConnection::Page> pagesOf(Engine const& engine) {
    return {
        {"/", "text/html; charset=utf-8", [] { return std::string(httpPage); }},
        {"/metrics", "text/plain; version=0.0.4; charset=utf-8", [&] { return engine.metrics(); }},
        {"/trace.json", "application/json", [&] { return engine.trace(); }},
    };
}

} // namespace

Daemon::Daemon(Mox::Ptr<Kel::EventLoop> const& loop, unsigned short port, unsigned short operatorPort,
               std::optional<tcp::endpoint> const& http)
    : engine_(loop), pages_(pagesOf(engine_)),
      clients_(loop->ioContext(), onLoopback(port), clientsMax, serve(engine_, client)),
      operators_(loop->ioContext(), onLoopback(operatorPort), operatorsMax, serve(engine_, operatorRole)) {
    engine_.ports = [this] {
        return Engine::Ports{clients_.number(), operators_.number(), clients_.connections(),
                             operators_.connections()};
    };
    if (http)
        http_.emplace(loop->ioContext(), *http, httpConnectionsMax, [this](tcp::socket socket) {
            return new HttpConnection(engine_.root, pages_, std::move(socket));
        });
}

} // namespace KelKv
