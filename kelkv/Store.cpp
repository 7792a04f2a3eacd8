#include "Store.h"

#include <utility>

namespace KelKv {

namespace {
bool isDue(Store::Value const& value) { return value.expiry && value.due <= Mox::now(); }
} // namespace

Store::Store(Mox::Ptr<Kel::TaskScheduler> const& scheduler)
    : expiries_(Kel::TaskGroup::TaskGroupIs("expiry", Kel::TaskPriority::low, false, scheduler)),
      table_(shards), scavenger_(new Scavenger<Shard>(scheduler)) {
    expiries_->taskGroupQuantumIs(0.0002);
}

Store::Value* Store::find(std::string_view key) {
    KeyView const view = hashed(key);
    Shard& shard = shardOf(view);
    auto const at = shard.find(view);
    if (at == shard.end())
        return nullptr;
    if (isDue(at->second)) [[unlikely]] {
        erase(shard, at);
        return nullptr;
    }
    return &at->second;
}

Store::Value& Store::set(std::string_view key, std::string_view text) {
    KeyView const view = hashed(key);
    Shard& shard = shardOf(view);
    auto at = shard.find(view);
    if (at == shard.end()) {
        at = shard.try_emplace(Key{std::string(key), view.hash}).first;
        ++size_;
    }
    at->second.text = text;
    expiryDel(at->second);
    return at->second;
}

bool Store::erase(std::string_view key) {
    KeyView const view = hashed(key);
    Shard& shard = shardOf(view);
    auto const at = shard.find(view);
    if (at == shard.end())
        return false;
    bool const wasDue = isDue(at->second);
    erase(shard, at);
    return !wasDue;
}

void Store::erase(Shard& shard, Shard::iterator at) {
    shard.erase(at);
    --size_;
}

void Store::clear() {
    scavenger_->add(std::exchange(table_, std::vector<Shard>(shards)));
    size_ = 0;
}

void Store::expiryIs(std::string_view key, Value& value, Mox::Seconds delay) {
    if (!value.expiry)
        value.expiry = new Expiry(*this, expiries_, key);
    value.expiry->delayIs(delay);
    value.due = value.expiry->time();
}

void Store::expiryDel(Value& value) {
    value.expiry = nullptr;
    value.due = Mox::endOfTime;
}

/// Looking for a key that is due erases it, as a rule; an operator may run the task before.
void Store::expire(std::string_view key, Expiry const& expiry) {
    Value const* const value = find(key);
    if (value && value->expiry == &expiry)
        erase(key);
}

} // namespace KelKv
