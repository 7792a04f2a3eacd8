#pragma once

#include "Connection.h"
#include "Listener.h"

namespace KelKv {

/// A port on the loopback address, and how its connections are served.
class Port {
  public:
    struct Role {
        char const* name; // of their tasks
        Kel::TaskPriority priority;
        bool isOperator;
        std::size_t connectionsMax;
    };

    Port(Daemon& daemon, Role const& role, unsigned short number);

    Role const& role() const { return role_; }
    unsigned short number() const { return listener_.number(); }
    std::size_t connections() const { return listener_.connections(); }

    void close() { listener_.close(); }
    void closed(Mox::Ptr<Connection> const& connection) { listener_.closed(connection); }

  private:
    Role const role_;
    Listener<Connection> listener_;
};

} // namespace KelKv
