#include "Port.h"

#include "Daemon.h"

namespace KelKv {

Port::Port(Daemon& daemon, Role const& role, unsigned short number)
    : role_(role), listener_(daemon.loop()->ioContext(), {boost::asio::ip::address_v4::loopback(), number},
                             role.connectionsMax, [this, &daemon](Connection::Socket socket) {
                                 return new Connection(daemon, *this, std::move(socket));
                             }) {}

} // namespace KelKv
