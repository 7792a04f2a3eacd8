#include "Listener.h"

#include <chrono>

namespace KelKv {

Listener::Listener(boost::asio::io_context& context, tcp::endpoint const& endpoint,
                   std::size_t connectionsMax, Make make)
    : connectionsMax_(connectionsMax), make_(std::move(make)), acceptor_(context, endpoint), retry_(context) {
    accept();
}

Listener::~Listener() {
    Error ignored;
    acceptor_.close(ignored);
    while (!connections_.empty())
        (*connections_.begin())->close();
}

void Listener::accept() {
    if (isBusy_ || !acceptor_.is_open() || connections_.size() >= connectionsMax_)
        return;
    isBusy_ = true;
    acceptor_.async_accept(whileThere([this](Error error, tcp::socket socket) {
        if (error)
            return acceptLater();
        isBusy_ = false;
        add(make_(std::move(socket)));
        accept();
    }));
}

void Listener::acceptLater() {
    retry_.expires_after(std::chrono::milliseconds(100));
    retry_.async_wait(whileThere([this](Error) {
        isBusy_ = false;
        accept();
    }));
}

/// The connection may close at once.
void Listener::add(Mox::Ptr<Connection> const& connection) {
    connections_.insert(connection);
    connection->start([this, of = connection.ptr()] {
        connections_.erase(of);
        accept();
    });
}

} // namespace KelKv
