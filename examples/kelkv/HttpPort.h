#pragma once

#include "HttpConnection.h"

#include <set>

namespace KelKv {

/// The socket that serves browsers and metrics collectors. Whoever reaches it may look at everything that the
/// scheduler measured, so it is bound to the loopback address unless told otherwise.
class HttpPort {
  public:
    static constexpr std::size_t connectionsMax = 16; // more wait until one closes

    /// Throws boost::system::system_error when the address and port cannot be had.
    HttpPort(Daemon& daemon, boost::asio::ip::tcp::endpoint const& endpoint);

    boost::asio::ip::tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }
    unsigned short number() const { return endpoint().port(); }

    /// Closes all connections and listens no more.
    void close();
    /// A connection has closed.
    void closed(Mox::Ptr<HttpConnection> const& connection);

  private:
    void accept();

    Daemon& daemon_;
    boost::asio::ip::tcp::acceptor acceptor_;
    bool isAccepting_ = false;
    std::set<Mox::Ptr<HttpConnection>> connections_;
};

} // namespace KelKv
