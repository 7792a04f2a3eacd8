#pragma once

#include "Connection.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <functional>
#include <memory>
#include <set>
#include <utility>

namespace KelKv {

/// A listening socket, and the connections that came by it.
///
/// When the process, or the system, has no room for another connection, it is tried again a little later.
class Listener {
  public:
    using tcp = boost::asio::ip::tcp;
    using Make = std::function<Mox::Ptr<Connection>(tcp::socket)>;

    /// With `connectionsMax` connections, more wait until one closes. Throws boost::system::system_error when
    /// the address and port cannot be had; port 0 takes a free one.
    Listener(boost::asio::io_context& context, tcp::endpoint const& endpoint, std::size_t connectionsMax,
             Make make);
    /// Closes all connections.
    ~Listener();
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }
    unsigned short number() const { return endpoint().port(); }
    std::size_t connections() const { return connections_.size(); }

  private:
    using Error = boost::system::error_code;

    void accept();
    void acceptLater();
    void add(Mox::Ptr<Connection> const& connection);

    /// A handler that is called while the listener is there: it may have been ready before that ended.
    template <class Handler> auto whileThere(Handler handler) {
        return [handler, there = std::weak_ptr<void>(there_)](Error error, auto&&... results) {
            if (!there.expired())
                handler(error, std::forward<decltype(results)>(results)...);
        };
    }

    std::size_t const connectionsMax_;
    Make const make_;
    tcp::acceptor acceptor_;
    boost::asio::steady_timer retry_;
    std::shared_ptr<void> const there_ = std::make_shared<char>();
    bool isBusy_ = false; // accepting, or waiting to
    std::set<Mox::Ptr<Connection>> connections_;
};

} // namespace KelKv
