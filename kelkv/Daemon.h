#pragma once

#include "Engine.h"
#include "HttpConnection.h"
#include "Listener.h"

#include <optional>
#include <vector>

namespace KelKv {

/// The whole daemon on an event loop: what it works on, a port for clients, one for the operator, and one for
/// browsers if it is asked for.
///
/// The operator's connections take the same commands and more (`SCHED`), and their tasks go before the
/// clients'.
class Daemon {
  public:
    /// Port 0 takes a free one. Throws boost::system::system_error when a port cannot be had.
    Daemon(Mox::Ptr<Kel::EventLoop> const& loop, unsigned short port, unsigned short operatorPort,
           std::optional<boost::asio::ip::tcp::endpoint> const& http = std::nullopt);
    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;

    Engine& engine() { return engine_; }
    Listener const& clients() const { return clients_; }
    Listener const& operators() const { return operators_; }
    /// Null when it was not asked for.
    Listener const* http() const { return http_ ? &*http_ : nullptr; }

  private:
    Engine engine_;
    std::vector<HttpConnection::Page> const pages_;
    Listener clients_;
    Listener operators_;
    std::optional<Listener> http_;
};

} // namespace KelKv
