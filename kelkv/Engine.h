#pragma once

#include "Store.h"

#include <group/TaskGroup.h>
#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <functional>
#include <string>

namespace KelKv {

/// What the daemon's connections work on: the scheduler, the store, and what is measured of them.
///
/// Walks over all keys run in the group "background", so that a hundred of them take no more from the other
/// clients than one does: the group is one `low` task to them, bounded by one quantum.
///
/// Lifetime: it outlives the connections.
struct Engine {
    /// As a connection's: all walks together are no worse a neighbour to a client than one more client.
    static constexpr Mox::Seconds backgroundQuantum = 0.0002;

    /// Where it is served, and to how many connections.
    struct Ports {
        unsigned short clients;
        unsigned short operators;
        std::size_t clientConnections;
        std::size_t operatorConnections;
    };

    explicit Engine(Mox::Ptr<Kel::EventLoop> const& loop);

    /// What the scheduler measured, and what the background group did within its runs, as text.
    std::string statistics() const;
    std::string history() const;
    /// The history as a Chrome trace, and the statistics for Prometheus.
    std::string trace() const;
    std::string metrics() const;

    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root;
    Mox::Ptr<Kel::TaskGroup> const background;
    Store store;
    Mox::Seconds const started = Mox::now();
    std::function<Ports()> ports = [] { return Ports{}; };
};

} // namespace KelKv
