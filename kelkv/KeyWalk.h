#pragma once

#include "ByteLimit.h"
#include "KeySearch.h"

#include <task/Task.h>

#include <deque>
#include <optional>
#include <string>

namespace KelKv {

/// Walks over all keys and replies with those that match a pattern, or without a pattern with their number.
///
/// It runs as a `low` task of the daemon's background group, in slices that are short against the group's
/// quantum: walks take turns within it, and it is overrun by a slice at most. The reply begins with a count
/// that is known only at the end of the walk: matches are gathered in pieces of some 64 KiB, which are then
/// handed over one by one, as fast as the client takes them.
///
/// A key is in the reply, once, if it is there from the walk's beginning to its end; one that comes or goes
/// meanwhile may be in it.
///
/// Lifetime: its client holds it, until `walkDone` or until it cancels the walk. The store outlives it.
class KeyWalk : public Kel::Task::Notifiee {
  public:
    /// Where the reply goes.
    class Client {
      public:
        /// Takes a piece of the reply. True when it takes the next one at once; else it calls `handOver()`
        /// later. May cancel the walk.
        virtual bool pieceIs(std::string&& piece) = 0;
        /// The whole reply was given.
        virtual void walkDone() = 0;
        /// There will be no more of the reply.
        virtual void walkFailed() noexcept = 0;

      protected:
        ~Client() = default;
    };

    static constexpr Mox::Seconds quantum = 0.00005;

    /// When what all walks have gathered is over the limit, the reply is an error.
    KeyWalk(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Store const& store, ByteLimit& gathered,
            Client& client, std::optional<std::string> pattern);
    ~KeyWalk() override;
    /// The client takes the next piece.
    void handOver() { task_->scheduleTask(); }
    /// The client is told nothing more.
    void cancel();

    void onTaskRun() override;
    void onException(std::exception_ptr thrown) noexcept override;

    /// For tests.
    Mox::Ptr<Kel::Task> const& task() const { return task_; }

  private:
    void gather();
    void add(std::string_view key);
    void addCount();
    void giveUp();
    void dropPieces();
    void measure() { gathered_.sizeIs(piecesSize_ + search_.kept()); }
    void handOverPieces();

    Store const& store_;
    Client* client_; // null: cancelled
    bool const isCount_;
    KeySearch search_;
    Mox::Ptr<Kel::Task> const task_;

    bool isGathering_ = true;
    std::size_t matches_ = 0;
    std::deque<std::string> pieces_; // the first one begins with the count
    std::size_t piecesSize_ = 0;     // bytes
    ByteShare gathered_;
};

} // namespace KelKv
