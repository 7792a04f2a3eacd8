#include "Walk.h"

#include "Glob.h"
#include "Resp.h"

#include <scheduler/TaskScheduler.h>

#include <utility>

namespace KelKv {

namespace {
constexpr std::size_t pieceSize = 1 << 16;
}

Walk::Walk(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Store const& store, WalkClient& client,
           std::optional<std::string> pattern)
    : store_(store), client_(&client), pattern_(std::move(pattern)),
      task_(Kel::Task::TaskIs(scheduler, Kel::TaskPriority::low, pattern_ ? "keys" : "dbsize")) {
    task_->taskQuantumIs(quantum);
    notifierIs(task_);
    task_->scheduleTask();
}

void Walk::onTaskRun() {
    Mox::Ptr<Walk> const self = this; // the client may let go of the walk
    if (gather())
        handOver();
    else
        task_->scheduleTask();
}

void Walk::cancel() {
    client_ = nullptr;
    task_->unscheduleTask();
}

/// False when the quantum ended first.
bool Walk::gather() {
    if (nextShard_ == Store::shards)
        return true;
    std::size_t visited = 0;
    do {
        visited += store_.shard(nextShard_).size();
        visit(store_.shard(nextShard_));
    } while (++nextShard_ < Store::shards && !task_->taskShouldYield());
    task_->taskWorkCountInc(visited);
    if (nextShard_ < Store::shards)
        return false;
    finishGathering();
    return true;
}

void Walk::visit(Store::Shard const& shard) {
    Mox::Seconds const now = Mox::now();
    for (auto const& [key, value] : shard)
        if (value.due > now && (!pattern_ || globMatches(*pattern_, key)))
            add(key);
}

void Walk::add(std::string_view key) {
    ++matches_;
    if (!pattern_)
        return;
    if (pieces_.empty() || pieces_.back().size() >= pieceSize)
        pieces_.emplace_back().reserve(pieceSize + 1024);
    ReplyWriter(pieces_.back()).bulk(key);
}

void Walk::finishGathering() {
    std::string& head = pieces_.emplace_front();
    if (pattern_)
        ReplyWriter(head).array(matches_);
    else
        ReplyWriter(head).integer(static_cast<std::int64_t>(matches_));
}

void Walk::handOver() {
    while (!pieces_.empty()) {
        std::string piece = std::move(pieces_.front());
        pieces_.pop_front();
        bool const takesMore = client_->pieceIs(std::move(piece));
        if (!client_)
            return;
        if (pieces_.empty())
            break;
        if (!takesMore)
            return;
        if (task_->taskShouldYield())
            return task_->scheduleTask();
    }
    client_->walkDone();
}

} // namespace KelKv
