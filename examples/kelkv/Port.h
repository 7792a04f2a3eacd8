#pragma once

#include "Connection.h"

#include <set>

namespace KelKv {

/// A listening socket on the loopback address and the connections that came by it.
class Port {
  public:
    /// How its connections are served.
    struct Role {
        char const* name; // of their tasks
        Kel::TaskPriority priority;
        bool isOperator;
        std::size_t connectionsMax; // more wait until one closes
    };

    /// Port 0 takes a free one. Throws boost::system::system_error when the port cannot be had.
    Port(Daemon& daemon, Role const& role, unsigned short number);

    Role const& role() const { return role_; }
    unsigned short number() const { return acceptor_.local_endpoint().port(); }
    std::size_t connections() const { return connections_.size(); }

    /// Closes all connections and listens no more.
    void close();
    /// A connection has closed.
    void closed(Mox::Ptr<Connection> const& connection);

  private:
    void accept();
    void accepted(Connection::Socket socket);

    Daemon& daemon_;
    Role const role_;
    boost::asio::ip::tcp::acceptor acceptor_;
    bool isAccepting_ = false;
    std::set<Mox::Ptr<Connection>> connections_;
};

} // namespace KelKv
