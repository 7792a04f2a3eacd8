#pragma once

#include <mox/Ptr.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <utility>

namespace KelKv {

/// A listening socket, and the connections that came by it. C has `start()` and `close()`, and tells
/// `closed()` when it has closed.
///
/// When the process, or the system, has no room for another connection, it is tried again a little later.
template <class C> class Listener {
  public:
    using tcp = boost::asio::ip::tcp;
    using Make = std::function<Mox::Ptr<C>(tcp::socket)>;

    /// With `connectionsMax` connections, more wait until one closes. Throws boost::system::system_error when
    /// the address and port cannot be had; port 0 takes a free one.
    Listener(boost::asio::io_context& context, tcp::endpoint const& endpoint, std::size_t connectionsMax,
             Make make)
        : connectionsMax_(connectionsMax), make_(std::move(make)), acceptor_(context, endpoint),
          retry_(context) {
        accept();
    }

    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }
    unsigned short number() const { return endpoint().port(); }
    std::size_t connections() const { return connections_.size(); }

    /// Closes all connections and listens no more.
    void close() {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
        retry_.cancel();
        while (!connections_.empty())
            Mox::Ptr<C>(*connections_.begin())->close();
    }
    void closed(Mox::Ptr<C> const& connection) {
        connections_.erase(connection);
        accept();
    }

  private:
    using Error = boost::system::error_code;

    void accept() {
        if (isBusy_ || !acceptor_.is_open() || connections_.size() >= connectionsMax_)
            return;
        isBusy_ = true;
        acceptor_.async_accept(whileThere([this](Error error, tcp::socket socket) {
            if (error)
                return acceptLater();
            isBusy_ = false;
            (*connections_.insert(make_(std::move(socket))).first)->start();
            accept();
        }));
    }
    void acceptLater() {
        retry_.expires_after(std::chrono::milliseconds(100));
        retry_.async_wait(whileThere([this](Error) {
            isBusy_ = false;
            accept();
        }));
    }
    /// A handler that is called while the listener is there and open: it may have been ready before that
    /// ended.
    template <class Handler> auto whileThere(Handler handler) {
        return [this, handler, there = std::weak_ptr<void>(there_)](Error error, auto&&... results) {
            if (!there.expired() && acceptor_.is_open())
                handler(error, std::forward<decltype(results)>(results)...);
        };
    }

    std::size_t const connectionsMax_;
    Make const make_;
    tcp::acceptor acceptor_;
    boost::asio::steady_timer retry_;
    std::shared_ptr<void> const there_ = std::make_shared<char>();
    bool isBusy_ = false; // accepting, or waiting to
    std::set<Mox::Ptr<C>> connections_;
};

} // namespace KelKv
