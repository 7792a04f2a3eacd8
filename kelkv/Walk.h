#pragma once

#include "Store.h"

#include <task/Task.h>

#include <deque>
#include <optional>
#include <string>

namespace KelKv {

/// Where the reply of a walk goes.
class WalkClient {
  public:
    /// Takes a piece of the reply. True when it takes the next one at once; else it calls `Walk::resume()`
    /// later. May cancel the walk.
    virtual bool pieceIs(std::string&& piece) = 0;
    /// The whole reply was given.
    virtual void walkDone() = 0;

  protected:
    ~WalkClient() = default;
};

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
class Walk : public Kel::Task::Notifiee {
  public:
    static constexpr Mox::Seconds quantum = 0.00005;

    Walk(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Store const& store, WalkClient& client,
         std::optional<std::string> pattern);
    /// Goes on after a piece that was not followed by the next.
    void resume() { task_->scheduleTask(); }
    /// The client is told nothing more.
    void cancel();

    void onTaskRun() override;

    /// For tests.
    Mox::Ptr<Kel::Task> const& task() const { return task_; }

  private:
    void visit(Store::Shard const& shard);
    void add(std::string_view key);
    void finishGathering();
    bool gather();
    void handOver();

    Store const& store_;
    WalkClient* client_; // null: cancelled
    std::optional<std::string> const pattern_;
    Mox::Ptr<Kel::Task> const task_;

    std::size_t nextShard_ = 0;
    std::size_t matches_ = 0;
    std::deque<std::string> pieces_; // the first one begins with the count
};

} // namespace KelKv
