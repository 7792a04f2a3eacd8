#include "Listener.h"

#include <boost/asio/write.hpp>
#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <system_error>

namespace KelKv {

namespace {

using tcp = boost::asio::ip::tcp;

constexpr std::chrono::milliseconds leavingTime{1000}, retryAfter{100};
constexpr int leavingReadsMax = 64;

/// Opens and binds by hand, so that what fails is told with the port and not with our place in the source.
tcp::acceptor listening(boost::asio::io_context& context, tcp::endpoint const& endpoint) {
    tcp::acceptor acceptor(context);
    boost::system::error_code error;
    acceptor.open(endpoint.protocol(), error);
    if (!error)
        acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        acceptor.bind(endpoint, error);
    if (!error)
        acceptor.listen(tcp::acceptor::max_listen_connections, error);
    if (!error)
        acceptor.non_blocking(true, error);
    if (error)
        throw std::system_error(error, "cannot listen on " + boost::lexical_cast<std::string>(endpoint));
    return acceptor;
}

} // namespace

Listener::Listener(boost::asio::io_context& context, tcp::endpoint const& endpoint, Limit const& limit,
                   Log& log, Make make)
    : limit_(limit), log_(log), make_(std::move(make)), acceptor_(listening(context, endpoint)),
      retry_(context), leave_(context) {
    keepReserve();
    accept();
}

Listener::~Listener() {
    Error ignored;
    acceptor_.close(ignored);
    while (!connections_.empty())
        (*connections_.begin())->close();
}

Engine::Port Listener::port() const {
    return {number(), connections(), limit_.connections, accepted_, refused_, displaced_};
}

void Listener::accept() {
    acceptor_.async_accept(whileThere([this](Error error, tcp::socket socket) {
        if (error)
            return acceptByReserve(error);
        keepReserve();
        if (hasRoom())
            add(std::move(socket));
        else
            refuse(std::move(socket));
        accept();
    }));
}

/// The descriptor is given up and taken again in one go, so that nobody else gets it in between.
void Listener::acceptByReserve(Error error) {
    if (!reserve_)
        return acceptLater(error);
    reserve_.reset();
    tcp::socket socket = acceptor_.accept(error);
    if (error == boost::asio::error::would_block) // the client has gone
        error = {};
    else if (!error && limit_.keepsPlace && hasRoom())
        add(std::move(socket));
    else if (!error)
        refuse(std::move(socket));
    keepReserve();
    error ? acceptLater(error) : accept();
}

/// Without a descriptor for it a connection stays where the system queues it.
void Listener::acceptLater(Error error) {
    log_.line("cannot accept a connection", error.message());
    retry_.expires_after(retryAfter);
    retry_.async_wait(whileThere([this](Error) {
        keepReserve();
        accept();
    }));
}

/// An open socket that is connected to nothing: closing it makes room for one that is.
void Listener::keepReserve() {
    if (reserve_)
        return;
    Error error;
    reserve_.emplace(acceptor_.get_executor());
    reserve_->open(tcp::v4(), error);
    if (error)
        reserve_.reset();
}

bool Listener::hasRoom() {
    if (connections_.size() < limit_.connections || !limit_.idleMakesRoom || connections_.empty())
        return connections_.size() < limit_.connections;
    constexpr auto busy = Mox::SteadyClock::TimePoint::max();
    Mox::Ptr<Connection> const idle = *std::ranges::min_element(
        connections_, {}, [&](auto const& of) { return of->idleSince().value_or(busy); });
    if (idle->idleSince()) {
        ++displaced_;
        idle->close();
    }
    return connections_.size() < limit_.connections;
}

/// The connection may close at once. One that cannot be made, or not begun, leaves the others alone.
void Listener::add(tcp::socket socket) {
    Mox::Ptr<Connection> connection;
    try {
        connection = make_(std::move(socket));
        connections_.insert(connection);
        ++accepted_;
        connection->start([this, of = connection.ptr()] { remove(of); });
    } catch (std::exception const& e) {
        log_.line("cannot serve a connection", e.what());
        if (connection)
            connection->close();
    }
}

/// What it leaves is the reserve's before anybody else's.
void Listener::remove(Connection* of) {
    connections_.erase(of);
    keepReserve();
}

void Listener::refuse(tcp::socket socket) {
    ++refused_;
    log_.line("too many connections on port " + std::to_string(number()), "one is refused");
    Error ignored;
    socket.non_blocking(true, ignored);
    socket.write_some(boost::asio::buffer(limit_.refusal), ignored);
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    if (reserve_) // or it stands where that has to be
        leave(std::move(socket));
}

/// The socket stays for a moment and takes what its client sends: one that closes with input unread resets
/// the connection, and the client may never read why. Of a flood only a few get that long.
void Listener::leave(tcp::socket socket) {
    if (leaving_.size() >= leavingMax)
        leaving_.erase(leaving_.begin());
    if (leaving_.empty()) {
        leave_.expires_after(leavingTime);
        leave_.async_wait(whileThere([this](Error error) {
            if (!error)
                leaving_.clear();
        }));
    }
    drain(*leaving_.insert(std::make_shared<tcp::socket>(std::move(socket))).first, leavingReadsMax);
}

void Listener::drain(std::shared_ptr<tcp::socket> const& refused, int readsLeft) {
    static std::array<char, 4096> scratch;
    refused->async_read_some(
        boost::asio::buffer(scratch),
        whileThere([this, readsLeft, of = std::weak_ptr(refused)](Error error, std::size_t) {
            auto const socket = of.lock();
            if (socket && !error && readsLeft > 0)
                drain(socket, readsLeft - 1);
            else if (socket)
                leaving_.erase(socket);
        }));
}

} // namespace KelKv
