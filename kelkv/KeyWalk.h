#pragma once

#include "GlobMatch.h"
#include "Store.h"

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
/// A key is in the reply, once, if it is there from the walk's beginning to its end (see Store); one that
/// comes or goes meanwhile may be in it.
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
    /// What one step may cost, in bytes of key times bytes of pattern: less than the quantum as a rule.
    static constexpr Mox::U64 stepCost = 1 << 16;

    KeyWalk(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Store const& store, Client& client,
            std::optional<std::string> pattern);
    /// The client takes the next piece.
    void handOver() { task_->scheduleTask(); }
    /// The client is told nothing more.
    void cancel();

    void onTaskRun() override;
    void onException(std::exception_ptr thrown) noexcept override;

    /// For tests.
    Mox::Ptr<Kel::Task> const& task() const { return task_; }

  private:
    /// The keys of a shard whose hashes are from `nextHash_` to the last one.
    struct Part {
        std::size_t last;
        std::size_t keys = 0;
        Mox::U64 cost = 0;
    };
    /// A copy of a key that takes more than one step, which the store may lose meanwhile.
    struct LongKey {
        LongKey(std::string_view pattern, std::string_view key) : text(key), match(pattern, text) {}
        std::string const text;
        GlobMatch match;
    };

    void gather();
    Part part(Store::Shard const& shard, std::size_t last) const;
    Part nextPart(Store::Shard const& shard) const;
    Mox::U64 cost(std::string_view key) const;
    void visitPart();
    void visit(std::string_view key);
    void matchLongKey();
    void add(std::string_view key);
    void addCount();
    void handOverPieces();

    Store const& store_;
    Client* client_; // null: cancelled
    std::optional<std::string> const pattern_;
    Mox::Ptr<Kel::Task> const task_;

    bool isGathering_ = true;
    std::size_t nextShard_ = 0;
    std::size_t nextHash_ = 0; // in that shard
    std::deque<LongKey> longKeys_;
    std::size_t matches_ = 0;
    std::deque<std::string> pieces_; // the first one begins with the count
};

} // namespace KelKv
