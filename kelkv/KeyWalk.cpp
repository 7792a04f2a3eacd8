#include "KeyWalk.h"

#include "Reply.h"

#include <scheduler/TaskScheduler.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace KelKv {

namespace {
constexpr std::size_t pieceSize = 1 << 16;
}

KeyWalk::KeyWalk(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Store const& store, ByteLimit& gathered,
                 Client& client, std::optional<std::string> pattern)
    : store_(store), client_(&client), isCount_(!pattern), search_(store, std::move(pattern)),
      task_(Kel::Task::TaskIs(scheduler, Kel::TaskPriority::low, isCount_ ? "dbsize" : "keys")),
      gathered_(gathered) {
    task_->taskQuantumIs(quantum);
    notifierIs(task_);
    task_->scheduleTask();
}

KeyWalk::~KeyWalk() { dropPieces(); }

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
    dropPieces(); // who holds the walk may do so longer than the store is there
}

/// Until the quantum ends, or all is gathered.
void KeyWalk::gather() {
    std::size_t const visitedBefore = search_.visited();
    do {
        search_.step([this](std::string_view key) { add(key); });
        isGathering_ = !search_.isDone();
        measure();
        if (gathered_.isTooMuch())
            return giveUp();
    } while (isGathering_ && !task_->taskShouldYield());
    task_->taskWorkCountInc(search_.visited() - visitedBefore);
    if (!isGathering_)
        addCount();
}

void KeyWalk::add(std::string_view key) {
    ++matches_;
    if (isCount_)
        return;
    if (pieces_.empty() || pieces_.back().size() >= pieceSize)
        pieces_.emplace_back().reserve(pieceSize + 1024);
    std::size_t const before = pieces_.back().size();
    appendBulk(pieces_.back(), key);
    piecesSize_ += pieces_.back().size() - before;
}

void KeyWalk::addCount() {
    std::string& head = pieces_.emplace_front();
    appendNumber(head, isCount_ ? ':' : '*', static_cast<std::int64_t>(matches_));
    piecesSize_ += head.size();
}

/// Waiting for others to read their replies might take for ever: they need not read.
void KeyWalk::giveUp() {
    gathered_.refusedInc();
    dropPieces();
    isGathering_ = false;
    std::string const& error = pieces_.emplace_back(
        "-OOM replies to KEYS that nobody has read take too much memory; SCAN takes none\r\n");
    piecesSize_ = error.size();
}

void KeyWalk::dropPieces() {
    if (!pieces_.empty())
        store_.scavenger()->add(
            std::make_unique<RemainsOf<std::deque<std::string>>>(std::exchange(pieces_, {})));
    piecesSize_ = 0;
    measure();
}

void KeyWalk::handOverPieces() {
    while (!pieces_.empty()) {
        std::string piece = std::move(pieces_.front());
        pieces_.pop_front();
        piecesSize_ -= piece.size();
        measure();
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
