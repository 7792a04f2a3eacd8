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
    struct Options {
        // Port 0 takes a free one.
        unsigned short port = 7379;
        unsigned short operatorPort = 7380;
        std::optional<boost::asio::ip::tcp::endpoint> http = std::nullopt; // none: no such port

        // Connections at a time.
        std::size_t clientsMax = 10000;
        std::size_t operatorsMax = 16;
        std::size_t httpMax = 16;
        std::chrono::seconds operatorPatience{600}; // until an idle operator is closed

        bool fastClock = false; // of the whole process

        /// The descriptors that these connections, and what the process has besides, may need.
        std::size_t descriptors() const;
    };

    /// Throws std::system_error, which names the port, when one cannot be had.
    Daemon(Mox::Ptr<Kel::EventLoop> const& loop, Options const& options);
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
