// The library beside its peers: the same work at every run, moved timers, fired timers. Every peer has the
// variant of its queue that serves it best; all are sampled in turn with ours and the floor.

#include "Peer.h"

#include <bench/Rows.h>
#include <bench/TaskLoad.h>

#include <mox/SteadyClock.h>

namespace {

using Bench::Options;
using Bench::Peer;
using Bench::PeerFigures;
using Contenders = std::vector<std::function<double()>>;

std::vector<Peer> peers() {
    return {Bench::libev(), Bench::libevent(), Bench::libuv(), Bench::glib(), Bench::asio()};
}

/// A row of medians: ours, the floor, and the peers of these names.
void row(char const* name, std::uint64_t n, std::vector<double> const& medians,
         std::vector<std::string> const& names) {
    PeerFigures figures;
    for (std::size_t i = 0; i < names.size(); ++i)
        figures.push_back({names[i], medians[i + 2]});
    Bench::Row(name, n).figure("ours", medians[0]).figure("floor", medians[1]).peers(figures);
}

constexpr std::uint64_t runs = 200'000;

template <class Load> auto runsOf(Load& load) {
    return [&load] { return Bench::costOfRuns(load, runs); };
}
std::function<double()> runsOf(std::shared_ptr<Bench::Items> const& items) {
    return [items] { return Bench::costOfRuns(*items, runs); };
}

void sameWork(Options const& options, char const* name, std::uint64_t n, bool requeued) {
    Bench::TaskLoad ours(n, Kel::EventLoop::EventLoopIs(), {.twoPriorities = true});
    Bench::FloorLoad<> floor(n);
    Contenders contenders{runsOf(ours), runsOf(floor)};
    std::vector<std::string> names;
    for (Peer const& peer : peers()) {
        for (Bench::Variant const& variant : peer.variants) {
            if (variant.requeued != requeued)
                continue;
            names.push_back(peer.name + ": " + variant.name);
            contenders.push_back(runsOf(std::shared_ptr(variant.make(n))));
        }
    }
    row(name, n, Bench::alternateAll(options.samples(), contenders), names);
}

std::vector<std::string> peerNames() {
    std::vector<std::string> names;
    for (Peer const& peer : peers())
        names.push_back(peer.name);
    return names;
}

void moved(Options const& options, std::uint64_t n) {
    Bench::OurTimers ours(n);
    Bench::BareTimers bare(n);
    auto const order = Bench::shuffled(n);
    for (int i = 0; i < Bench::movesBefore; ++i)
        Bench::moveAll(ours, order);
    Contenders contenders{[&] { return Bench::moveAll(ours, order); },
                          [&] { return Bench::moveAll(bare, order); }};
    for (Peer const& peer : peers())
        contenders.push_back(
            [&order, timers = std::shared_ptr(peer.timers(n))] { return timers->move(order); });
    row("timer moved to a random time again, ns", n, Bench::alternateAll(options.samples(), contenders),
        peerNames());
}

/// A sample takes two seconds; the peers get every second one.
void fired(Options const& options) {
    Bench::OurTimers ours(Bench::firedTimers);
    Bench::BareTimers bare(Bench::firedTimers);
    Contenders contenders{[&] { return Bench::fire(ours); }, [&] { return Bench::fire(bare); }};
    for (Peer const& peer : peers())
        contenders.push_back([turn = 0, timers = std::shared_ptr(peer.timers(Bench::firedTimers))]() mutable {
            return turn++ % 2 == 0 ? std::nan("") : timers->fireAll();
        });
    row("timer fired, CPU ns", Bench::firedTimers, Bench::alternateAll(options.samples() - 1, contenders),
        peerNames());
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    for (unsigned const n : {1u, 16u, 1000u, 1'000'000u})
        sameWork(options, "same work in two priorities, ns", n, true);
    for (unsigned const n : {1u, 16u, 1000u})
        sameWork(options, "two priorities, the peers' items left queued, ns", n, false);
    for (unsigned const n : {1'000u, 100'000u, 1'000'000u})
        moved(options, n);
    fired(options);
    // The peers' bookkeeping and the floor's go by the POSIX clock; last, since a clock that was fast stays
    // behind.
    using Mox::SteadyClock;
    if (Mox::Problem const problem = SteadyClock::sourceIs(SteadyClock::Source::counter); !problem.empty())
        Bench::leftOut("fast clock", problem);
    else
        for (unsigned const n : {1u, 16u, 1000u, 1'000'000u})
            sameWork(options, "same work in two priorities, fast clock, ns", n, true);
}
