#include "Daemon.h"

#include "HttpPage.h"
#include "RespConnection.h"

namespace KelKv {

namespace {

using boost::asio::ip::tcp;

constexpr Connection::Role client{"client", Kel::TaskPriority::normal, false};
constexpr Connection::Role operatorRole{"operator", Kel::TaskPriority::high, true};
constexpr std::string_view tooMany = "-ERR max number of clients reached\r\n";
constexpr std::string_view httpTooMany = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n"
                                         "Connection: close\r\n\r\n";

tcp::endpoint onLoopback(unsigned short port) { return {boost::asio::ip::address_v4::loopback(), port}; }

Listener::Make serve(Engine& engine, Connection::Role const& role) {
    return [&](tcp::socket socket) { return new RespConnection(engine, role, std::move(socket)); };
}

std::vector<HttpConnection::Page> pagesOf(Engine const& engine) {
    return {
        {"/", "text/html; charset=utf-8", [] { return std::make_unique<PlainText>(httpPage); }},
        {"/metrics", "text/plain; version=0.0.4; charset=utf-8", [&] { return engine.metrics(); }},
        {"/trace.json", "application/json", [&] { return engine.trace(); }},
    };
}

} // namespace

std::size_t Daemon::Options::descriptors() const {
    constexpr std::size_t ports = 3 * Listener::descriptors;
    constexpr std::size_t besides = 32; // the standard streams, the loop's, what the process inherits
    return clientsMax + operatorsMax + httpMax + ports + besides;
}

Daemon::Daemon(Mox::Ptr<Kel::EventLoop> const& loop, Options const& options)
    : engine_(loop), pages_(pagesOf(engine_)),
      clients_(loop->ioContext(), onLoopback(options.port), {options.clientsMax, tooMany}, engine_.log,
               serve(engine_, client)),
      operators_(loop->ioContext(), onLoopback(options.operatorPort), {options.operatorsMax, tooMany, true},
                 engine_.log, serve(engine_, operatorRole)) {
    engine_.patience.idleOperator = options.operatorPatience;
    engine_.ports = [this] {
        return Engine::Ports{clients_.port(), operators_.port(), http_ ? http_->port() : Engine::Port{}};
    };
    if (options.http)
        http_.emplace(
            loop->ioContext(), *options.http, Listener::Limit{options.httpMax, httpTooMany, true, true},
            engine_.log,
            [this](tcp::socket socket) { return new HttpConnection(engine_, pages_, std::move(socket)); });
}

} // namespace KelKv
