#include "Store.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace KelKv {

namespace {

constexpr std::size_t freedAtOnce = 1 << 16; // bytes of a value

bool isDue(Store::Value const& value) { return value.expiry && value.due <= Mox::now(); }

constexpr int shardsAtOnce = 64; // are freed in a microsecond or two

/// The keys of a table, one by one.
class Remnants : public Remains {
  public:
    explicit Remnants(std::vector<Store::Shard>&& table)
        : table_(std::move(table)), at_(table_.back().begin()) {}
    bool dropOne() override {
        for (int i = 0; i < shardsAtOnce && !table_.empty(); ++i) {
            if (at_ != table_.back().end()) {
                table_.back().erase(at_++);
                return true;
            }
            table_.pop_back();
            if (!table_.empty())
                at_ = table_.back().begin();
        }
        return !table_.empty();
    }

  private:
    std::vector<Store::Shard> table_; // not empty before the end
    Store::Shard::iterator at_;
};

} // namespace

Store::Store(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Mox::Ptr<Scavenger> scavenger)
    : expiries_(Kel::TaskGroup::TaskGroupIs("expiry", Kel::TaskPriority::low, false, scheduler)),
      scavenger_(std::move(scavenger)), table_(shards) {
    expiries_->taskGroupQuantumIs(0.0002);
}

Store::~Store() { scavenger_->clear(); }

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

Store::Value& Store::set(std::string_view key, Text&& text) {
    KeyView const view = hashed(key);
    Shard& shard = shardOf(view);
    auto at = shard.find(view);
    if (at == shard.end()) {
        if (shard.bucket_count() == 0)
            taken_.push_back(static_cast<std::uint16_t>(&shard - table_.data()));
        at = shard.try_emplace(Key{std::string(key), view.hash}).first;
        ++size_;
    }
    textIs(at->second, std::move(text));
    expiryDel(at->second);
    return at->second;
}

void Store::textIs(Value& value, Text&& text) {
    leave(value.text);
    value.text = std::move(text);
}

bool Store::erase(std::string_view key) {
    KeyView const view = hashed(key);
    Shard& shard = shardOf(view);
    auto const at = shard.find(view);
    if (at == shard.end())
        return false;
    return erase(shard, at);
}

bool Store::erase(Shard& shard, Shard::iterator at) {
    bool const wasDue = isDue(at->second);
    expired_ += wasDue ? 1 : 0;
    expiring_ -= at->second.expiry ? 1U : 0U;
    released_ += sizeof(Shard::value_type) + at->first.text.size();
    leave(at->second.text);
    shard.erase(at);
    --size_;
    return !wasDue;
}

/// Before a value is gone: freeing some hundred KiB takes as long as a step should. (A long text goes to the
/// scavenger by itself.)
void Store::leave(Text& text) {
    released_ += text.size();
    if (text.isLong() || text.view().size() <= freedAtOnce) [[likely]]
        return;
    std::vector<Text> texts;
    texts.push_back(std::move(text));
    scavenger_->add(std::make_unique<RemainsOf<std::vector<Text>>>(std::move(texts)));
}

/// A new table for many keys; for a few, what has room only: a client may ask for this as often as it likes.
void Store::clear() {
    if (taken_.empty())
        return;
    bool const isMany = taken_.size() > shards / 8;
    std::vector<Shard> remnants(isMany ? shards : taken_.size());
    if (isMany)
        remnants.swap(table_);
    else
        for (std::size_t i = 0; i < taken_.size(); ++i)
            remnants[i].swap(table_[taken_[i]]);
    scavenger_->add(std::make_unique<Remnants>(std::move(remnants)));
    taken_.clear();
    released_ += size_ > 0 ? std::uint64_t{1} << 40 : 0; // nobody asks how long all texts are
    size_ = expiring_ = 0;
}

Store::Key const& Store::key(std::size_t number) const {
    auto shard = table_.begin();
    for (; number >= shard->size(); ++shard)
        number -= shard->size();
    return std::next(shard->begin(), static_cast<std::ptrdiff_t>(number))->first;
}

void Store::dueIs(std::string_view key, Value& value, Mox::Seconds due) {
    if (!value.expiry) {
        value.expiry = new Expiry(*this, expiries_, key);
        ++expiring_;
    }
    value.expiry->delayIs(std::max(due - Mox::now(), 0.0));
    value.due = due;
}

void Store::expiryDel(Value& value) {
    expiring_ -= value.expiry ? 1U : 0U;
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
