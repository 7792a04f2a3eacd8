#pragma once

#include "ByteLimit.h"
#include "LeastPass.h"
#include "Log.h"
#include "Session.h"
#include "Store.h"
#include "TextSequence.h"

#include <group/TaskGroup.h>
#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <boost/intrusive/list.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <random>
#include <string>

namespace KelKv {

/// What the daemon's connections work on: the scheduler, the store, what is measured of them, and what all
/// clients share.
///
/// Walks over all keys, and what clients ask beyond their allowance, run in the group "background", so that
/// a hundred of them take no more from the other clients than one does: the group is one `low` task to them,
/// bounded by one quantum. As tasks beside it each would count against them: the more wait below, the more
/// often one goes ahead.
///
/// Lifetime: it outlives the connections.
struct Engine {
    /// As a connection's: all walks together are no worse a neighbour to a client than one more client.
    static constexpr Mox::Seconds backgroundQuantum = 0.0002;

    /// A port, and who came by it.
    struct Port {
        unsigned short number = 0;
        std::size_t connections = 0;
        std::size_t connectionsMax = 0;
        Mox::U64 accepted = 0;
        Mox::U64 refused = 0;   // over the limit, or without a descriptor
        Mox::U64 displaced = 0; // closed while idle, to make room
    };
    struct Ports {
        Port clients, operators, http;
    };

    explicit Engine(Mox::Ptr<Kel::EventLoop> const& loop);

    // Texts that are made in slices.

    /// What the scheduler measured, and what the background group did within its runs.
    SlicedTextPtr statistics() const;
    SlicedTextPtr history() const;
    /// The history as a Chrome trace.
    SlicedTextPtr trace() const;
    /// The statistics for Prometheus, and figures of the ports and the store.
    SlicedTextPtr metrics() const;

    Mox::Ptr<Kel::TaskSchedulerEventLoop> const root;
    Mox::Ptr<Kel::TaskGroup> const background;
    Mox::Ptr<LeastPass> const backgroundGetsOn{new LeastPass(*background)};
    Mox::Ptr<Scavenger> const scavenger;
    Store store;
    Log log;

    boost::intrusive::list<Session, boost::intrusive::constant_time_size<false>> sessions;
    Mox::U64 lastSession = 0;
    /// What has come in of requests that are not answered, of all clients together: one of the largest, and
    /// as much again.
    ByteLimit requestBytes{std::size_t{1} << 30};
    /// What walks and long texts have gathered and nobody has read, and a room of their own for operators,
    /// who have to find out who does not read.
    ByteLimit walkBytes{std::size_t{1} << 28}, operatorBytes{std::size_t{1} << 28};
    /// Replies that are not sent.
    ByteLimit replyBytes{std::size_t{1} << 28};
    struct Limit {
        char const* name;
        ByteLimit const& of;
    };
    std::array<Limit, 4> limits() const;
    ByteLimit& gatheredBy(Session const& session) { return session.isOperator ? operatorBytes : walkBytes; }
    /// After which connections are closed.
    struct Patience {
        std::chrono::milliseconds idleOperator{600'000};
        std::chrono::milliseconds httpExchange{30'000}; // from a request's first byte to its answer's last
        std::chrono::milliseconds idleHttp{10'000};
    } patience;

    Mox::U64 commandsAnswered = 0;
    /// Seconds since 1970, for times that clients give by the calendar.
    std::function<Mox::Seconds()> calendarTime = [] {
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    };
    std::mt19937 random{std::random_device{}()};

    Mox::SteadyClock::TimePoint const started = Mox::SteadyClock::now();
    std::function<Ports()> ports = [] { return Ports{}; };
};

} // namespace KelKv
