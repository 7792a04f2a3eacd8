#include "Port.h"

#include "Daemon.h"

#include <boost/asio/io_context.hpp>

#include <utility>

namespace KelKv {

using boost::asio::ip::tcp;
using boost::system::error_code;

Port::Port(Daemon& daemon, Role const& role, unsigned short number)
    : daemon_(daemon), role_(role),
      acceptor_(daemon.loop()->ioContext(), tcp::endpoint(boost::asio::ip::address_v4::loopback(), number)) {
    accept();
}

void Port::accept() {
    if (isAccepting_ || !acceptor_.is_open() || connections_.size() >= role_.connectionsMax)
        return;
    isAccepting_ = true;
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
        if (error == boost::asio::error::operation_aborted)
            return; // the port may be gone
        isAccepting_ = false;
        if (!error)
            accepted(std::move(socket));
        if (error != boost::asio::error::no_descriptors) // else when a connection has closed
            accept();
    });
}

void Port::accepted(tcp::socket socket) {
    Mox::Ptr<Connection> const connection = new Connection(daemon_, *this, std::move(socket));
    connections_.insert(connection);
    connection->start();
}

void Port::closed(Mox::Ptr<Connection> const& connection) {
    connections_.erase(connection);
    accept();
}

void Port::close() {
    error_code ignored;
    acceptor_.close(ignored);
    while (!connections_.empty())
        Mox::Ptr<Connection>(*connections_.begin())->close();
}

} // namespace KelKv
