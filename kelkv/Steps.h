#pragma once

#include "Commands.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace KelKv {

/// What one step of a command does at most, counted in bytes of keys and values that are read, copied or
/// replied, and at least one word of it: some tens of microseconds.
///
/// A request whose keys and values take no more, each counted as its bytes and `wordBytes` more (some 120
/// short ones; of MGET the values as well), is answered in one step, and so at once. Of one that takes more,
/// others' commands come between its steps.
constexpr std::size_t stepBytes = 1 << 16;
/// What a word costs however short it is: memory is waited for.
constexpr std::size_t wordBytes = 512;

/// Does something with each group of `stride` words, and replies in the end. A `Work` has
/// `std::size_t take(CommandContext&, Arguments group)`, which returns what the group cost beside its words,
/// and `void end(CommandContext&)`.
template <class Work> class EachWord {
  public:
    EachWord(Arguments words, std::size_t stride, Work work)
        : words_(words), stride_(stride), work_(std::move(work)) {}

    /// One step; true while there is more.
    bool operator()(CommandContext& context) {
        for (std::size_t cost = 0; !words_.empty() && cost < stepBytes; words_ = words_.subspan(stride_)) {
            Arguments const group = words_.first(stride_);
            for (Word const& word : group)
                cost += wordBytes + word.view.size();
            cost += work_.take(context, group);
        }
        if (words_.empty())
            work_.end(context);
        return !words_.empty();
    }

  private:
    Arguments words_; // that are left
    std::size_t stride_;
    Work work_;
};

/// The first step now, the others as the rest of the command. Requires: a multiple of `stride` words.
template <class Work>
void forEachWord(CommandContext& context, Arguments words, std::size_t stride, Work work) {
    EachWord<Work> each(words, stride, std::move(work));
    if (each(context))
        context.rest = std::move(each);
}

/// What the store has under a word that may be long. No key is: it could not be written.
inline Store::Value* findAny(Store& store, Word const& key) {
    return key.text ? nullptr : store.find(key.view);
}

/// A text that is made part by part, for one that takes long, and handed over as fast as the client takes it:
/// its length comes first, so that it is gathered as a whole. When all that is gathered is over the limit,
/// the reply is an error.
class GatheredBulk {
  public:
    /// Appends the next part, in microseconds; true while there is more.
    using Parts = std::function<bool(std::string& text)>;

    /// Replies at once when that is one part.
    static void reply(CommandContext& context, Parts parts);

    GatheredBulk(Parts parts, std::string&& first, ByteLimit& limit);
    /// One step; true while there is more.
    bool step(CommandContext& context);

  private:
    void gather(bool isResp3);
    void add(std::string&& piece);

    Parts parts_; // null: all are gathered
    std::deque<std::string> pieces_;
    ByteShare gathered_; // bytes of them
};

} // namespace KelKv
