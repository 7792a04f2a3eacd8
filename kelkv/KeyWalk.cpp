#include "KeyWalk.h"

#include "Resp.h"

#include <mox/Prefetch.h>
#include <scheduler/TaskScheduler.h>

#include <limits>
#include <utility>

namespace KelKv {

namespace {
constexpr std::size_t pieceSize = 1 << 16;
}

KeyWalk::KeyWalk(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Store const& store, Client& client,
                 std::optional<std::string> pattern)
    : store_(store), client_(&client), pattern_(std::move(pattern)),
      task_(Kel::Task::TaskIs(scheduler, Kel::TaskPriority::low, pattern_ ? "keys" : "dbsize")) {
    task_->taskQuantumIs(quantum);
    notifierIs(task_);
    task_->scheduleTask();
}

void KeyWalk::onTaskRun() {
    Mox::Ptr<KeyWalk> const self = this; // the client may let go of the walk
    if (isGathering_)
        gather();
    if (isGathering_)
        task_->scheduleTask();
    else
        handOverPieces();
}

/// The client's reply has its beginning perhaps, and cannot be ended.
void KeyWalk::onException(std::exception_ptr thrown) noexcept {
    Kel::Task::Notifiee::onException(std::move(thrown));
    if (client_)
        client_->walkFailed();
}

void KeyWalk::cancel() {
    client_ = nullptr;
    task_->unscheduleTask();
}

/// Until the quantum ends, or all is gathered.
void KeyWalk::gather() {
    do {
        longKeys_.empty() ? visitPart() : matchLongKey();
        isGathering_ = nextShard_ < Store::shards || !longKeys_.empty();
    } while (isGathering_ && !task_->taskShouldYield());
    if (!isGathering_)
        addCount();
}

/// The most that matching, and copying what matched, may cost: a mismatch may begin the pattern again at each
/// of the key's bytes.
Mox::U64 KeyWalk::cost(std::string_view key) const {
    return pattern_ ? Mox::U64{pattern_->size() + 1} * (key.size() + 1) : 1;
}

/// The keys themselves are fetched meanwhile: matching them would wait for the memory, key by key.
KeyWalk::Part KeyWalk::part(Store::Shard const& shard, std::size_t last) const {
    Part part{last};
    for (auto const& [key, value] : shard)
        if (nextHash_ <= key.hash && key.hash <= last) {
            ++part.keys;
            part.cost += cost(key.text);
            Mox::prefetch(key.text.data());
        }
    return part;
}

/// What one step visits: as a rule all of a shard. One that costs too much is halved by its keys' hashes: a
/// position in the table would be lost when it grows between two steps, and a list of what was visited would
/// be as long as the keys.
KeyWalk::Part KeyWalk::nextPart(Store::Shard const& shard) const {
    Part next = part(shard, std::numeric_limits<std::size_t>::max());
    while (next.cost > stepCost && next.keys > 1 && next.last > nextHash_)
        next = part(shard, nextHash_ + (next.last - nextHash_) / 2);
    return next;
}

void KeyWalk::visitPart() {
    Store::Shard const& shard = store_.shard(nextShard_);
    Part const part = nextPart(shard);
    Mox::Seconds const now = Mox::now();
    for (auto const& [key, value] : shard)
        if (nextHash_ <= key.hash && key.hash <= part.last && value.due > now)
            visit(key.text);
    task_->taskWorkCountInc(part.keys);
    nextHash_ = part.last + 1; // 0 behind the greatest
    nextShard_ += nextHash_ == 0 ? 1 : 0;
}

void KeyWalk::visit(std::string_view key) {
    if (!pattern_)
        ++matches_;
    else if (cost(key) > stepCost)
        longKeys_.emplace_back(*pattern_, key);
    else if (*GlobMatch(*pattern_, key).step(std::string_view::npos))
        add(key);
}

/// A byte of a set takes some nanoseconds, where one that stands for itself takes a fraction of one.
void KeyWalk::matchLongKey() {
    LongKey& key = longKeys_.front();
    std::optional<bool> const matches = key.match.step(stepCost / 4);
    if (matches == true)
        add(key.text);
    if (matches)
        longKeys_.pop_front();
}

void KeyWalk::add(std::string_view key) {
    ++matches_;
    if (pieces_.empty() || pieces_.back().size() >= pieceSize)
        pieces_.emplace_back().reserve(pieceSize + 1024);
    ReplyWriter(pieces_.back()).bulk(key);
}

void KeyWalk::addCount() {
    std::string& head = pieces_.emplace_front();
    if (pattern_)
        ReplyWriter(head).array(matches_);
    else
        ReplyWriter(head).integer(static_cast<std::int64_t>(matches_));
}

void KeyWalk::handOverPieces() {
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
