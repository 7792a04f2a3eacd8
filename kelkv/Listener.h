#pragma once

#include "Connection.h"
#include "Engine.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace KelKv {

/// A listening socket, and the connections that came by it.
///
/// A connection over the limit is told so, and closed; so is one for which the process has no descriptor. For
/// that the port has one in reserve, and with `keepsPlace` that is the next connection's: an operator gets in
/// however many clients there are. What cannot be accepted at all is tried again a little later.
class Listener {
  public:
    using tcp = boost::asio::ip::tcp;
    using Make = std::function<Mox::Ptr<Connection>(tcp::socket)>;

    struct Limit {
        std::size_t connections;
        std::string_view refusal; // what one more is sent
        bool keepsPlace = false;
        bool idleMakesRoom = false; // at the limit the one that has been idle longest is closed for another
    };

    /// Descriptors that a port has besides its connections: its own, the reserve, and those of refused ones.
    static constexpr std::size_t leavingMax = 16;
    static constexpr std::size_t descriptors = 2 + leavingMax;

    /// Throws std::system_error, which names the port, when the address and port cannot be had; port 0 takes
    /// a free one.
    Listener(boost::asio::io_context& context, tcp::endpoint const& endpoint, Limit const& limit, Log& log,
             Make make);
    /// Closes all connections.
    ~Listener();
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }
    unsigned short number() const { return endpoint().port(); }
    std::size_t connections() const { return connections_.size(); }
    /// What is counted of them.
    Engine::Port port() const;

  private:
    using Error = boost::system::error_code;

    void accept();
    void acceptByReserve(Error error);
    void acceptLater(Error error);
    void keepReserve();
    bool hasRoom();
    void add(tcp::socket socket);
    void remove(Connection* of);

    /// A handler that is called while the listener is there: it may have been ready before that ended.
    template <class Handler> auto whileThere(Handler handler) {
        return [handler, there = std::weak_ptr<void>(there_)](Error error, auto&&... results) {
            if (!there.expired())
                handler(error, std::forward<decltype(results)>(results)...);
        };
    }

    void refuse(tcp::socket socket);
    void leave(tcp::socket socket);
    void drain(std::shared_ptr<tcp::socket> const& refused, int readsLeft);

    Limit const limit_;
    Log& log_;
    Make const make_;
    tcp::acceptor acceptor_;
    boost::asio::steady_timer retry_;
    boost::asio::steady_timer leave_;
    std::shared_ptr<void> const there_ = std::make_shared<char>();
    std::set<Mox::Ptr<Connection>> connections_;
    Mox::U64 accepted_ = 0;
    Mox::U64 refused_ = 0;
    Mox::U64 displaced_ = 0;
    std::set<std::shared_ptr<tcp::socket>> leaving_; // refused, until they have read why
    std::optional<tcp::socket> reserve_; // a descriptor that is not needed yet; connected to nothing
};

} // namespace KelKv
