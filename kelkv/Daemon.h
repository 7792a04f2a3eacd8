#pragma once

#include "HttpConnection.h"
#include "Port.h"
#include "Store.h"

#include <group/TaskGroup.h>
#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <array>
#include <optional>

namespace KelKv {

/// The whole daemon on an event loop: the scheduler, the store, a port for clients, one for the operator, and
/// one for browsers if it is asked for.
///
/// Walks over all keys run in the group "background", so that a hundred of them take no more from the other
/// clients than one does: the group is one `low` task to them, bounded by one quantum.
///
/// The operator's connections take the same commands and more (`SCHED`), and their tasks go before the
/// clients'.
class Daemon {
  public:
    /// As a connection's: all walks together are no worse a neighbour to a client than one more client.
    static constexpr Mox::Seconds backgroundQuantum = 0.0002;

    /// Port 0 takes a free one. Throws boost::system::system_error when a port cannot be had.
    Daemon(Mox::Ptr<Kel::EventLoop> const& loop, unsigned short port, unsigned short operatorPort,
           std::optional<boost::asio::ip::tcp::endpoint> const& http = std::nullopt);
    ~Daemon();
    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;

    Mox::Ptr<Kel::EventLoop> const& loop() const { return loop_; }
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const& root() const { return root_; }
    Mox::Ptr<Kel::TaskGroup> const& background() const { return background_; }
    Store& store() { return store_; }
    Port const& clients() const { return clients_; }
    Port const& operators() const { return operators_; }
    /// Null when it was not asked for.
    Listener<HttpConnection> const* http() const { return http_ ? &*http_ : nullptr; }
    Mox::Seconds upTime() const { return Mox::now() - started_; }

    /// Where sockets are read to; what is in it is good until the next socket is read.
    std::array<char, 1 << 16>& scratch() { return scratch_; }

    /// What the scheduler measured, and what the background group did within its runs, as text.
    std::string statistics() const;
    std::string history() const;
    /// The history as a Chrome trace, and the statistics for Prometheus.
    std::string trace() const;
    std::string metrics() const;

  private:
    Mox::Ptr<Kel::EventLoop> const loop_;
    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root_;
    Mox::Ptr<Kel::TaskGroup> const background_;
    Store store_;
    Mox::Seconds const started_ = Mox::now();
    std::array<char, 1 << 16> scratch_;
    Port clients_;
    Port operators_;
    std::optional<Listener<HttpConnection>> http_;
};

} // namespace KelKv
