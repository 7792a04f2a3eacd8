#include "HttpPort.h"

#include "Daemon.h"

#include <utility>

namespace KelKv {

using boost::asio::ip::tcp;

HttpPort::HttpPort(Daemon& daemon, tcp::endpoint const& endpoint)
    : daemon_(daemon), acceptor_(daemon.loop()->ioContext(), endpoint) {
    accept();
}

void HttpPort::accept() {
    if (isAccepting_ || !acceptor_.is_open() || connections_.size() >= connectionsMax)
        return;
    isAccepting_ = true;
    acceptor_.async_accept([this](boost::system::error_code error, tcp::socket socket) {
        if (error == boost::asio::error::operation_aborted)
            return; // the port may be gone
        isAccepting_ = false;
        if (!error)
            (*connections_.insert(new HttpConnection(daemon_, *this, std::move(socket))).first)->start();
        if (error != boost::asio::error::no_descriptors) // else when a connection has closed
            accept();
    });
}

void HttpPort::closed(Mox::Ptr<HttpConnection> const& connection) {
    connections_.erase(connection);
    accept();
}

void HttpPort::close() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    while (!connections_.empty())
        Mox::Ptr<HttpConnection>(*connections_.begin())->close();
}

} // namespace KelKv
