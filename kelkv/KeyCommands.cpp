#include "KeySearch.h"
#include "Lifetime.h"
#include "Number.h"
#include "Steps.h"

#include <algorithm>
#include <optional>
#include <utility>

// Commands on keys, one, several and all of them.

namespace KelKv {

namespace {

using Mox::S64;

constexpr std::size_t any = Limits::words;

Store& store(CommandContext& context) { return context.engine.store; }

// One or several

/// Replies with the number of keys for which it is true.
template <bool (*isCounted)(Store& store, std::string_view key)> struct Counting {
    std::size_t take(CommandContext& context, Arguments key) {
        count += !key[0].text && isCounted(store(context), key[0]) ? 1 : 0;
        return 0;
    }
    void end(CommandContext& context) { context.reply.integer(count); }

    S64 count = 0;
};

template <bool (*isCounted)(Store& store, std::string_view key)>
void countKeys(CommandContext& context, Arguments words) {
    forEachWord(context, words.subspan(1), 1, Counting<isCounted>());
}

bool erase(Store& store, std::string_view key) { return store.erase(key); }
bool isThere(Store& store, std::string_view key) { return store.find(key) != nullptr; }

void type(CommandContext& context, Arguments words) {
    context.reply.status(store(context).find(words[1]) ? "string" : "none");
}

/// Its time to live goes with a value.
void put(CommandContext& context, std::string_view key, Text&& text, Mox::Seconds due) {
    Store::Value& value = store(context).set(key, std::move(text));
    if (due != Mox::endOfTime)
        store(context).dueIs(key, value, due);
}

/// Whether it is done: not, when the new name is taken and may not be, nor without a reply when there is no
/// such key.
std::optional<bool> moveTo(CommandContext& context, Arguments words, bool mayReplace) {
    bool const isTaken = !mayReplace && isThere(store(context), words[2]);
    Store::Value* const value = store(context).find(words[1]);
    if (!value) {
        context.reply.error("no such key");
        return std::nullopt;
    }
    if (isTaken || words[1].view == words[2].view)
        return !isTaken;
    Text text = std::exchange(value->text, Text());
    Mox::Seconds const due = value->due;
    store(context).erase(words[1]);
    put(context, words[2], std::move(text), due);
    return true;
}

void rename(CommandContext& context, Arguments words) {
    if (moveTo(context, words, true))
        context.reply.status("OK");
}

void renameNew(CommandContext& context, Arguments words) {
    if (std::optional<bool> const isMoved = moveTo(context, words, false))
        context.reply.integer(*isMoved ? 1 : 0);
}

void copy(CommandContext& context, Arguments words) {
    bool mayReplace = false;
    for (Arguments left = words.subspan(3); !left.empty();) {
        bool const isDatabase = left.size() > 1 && isWord(left[0], "DB");
        int database = 0;
        if (!isDatabase && !isWord(left[0], "REPLACE"))
            return context.reply.error("syntax error");
        if (isDatabase && !readNumber(left[1], database))
            return context.reply.error("value is not an integer or out of range");
        if (database != 0)
            return context.reply.error("DB index is out of range: there is one, 0");
        mayReplace = mayReplace || !isDatabase;
        left = left.subspan(isDatabase ? 2 : 1);
    }
    if (words[1].view == words[2].view)
        return context.reply.error("source and destination objects are the same");
    bool const isTaken = !mayReplace && isThere(store(context), words[2]);
    Store::Value const* const value = store(context).find(words[1]);
    bool const isCopied = value && !isTaken;
    if (isCopied && !value->text.isLong())
        context.copied += value->text.size();
    if (isCopied)
        put(context, words[2], value->text.clone(store(context).scavenger()), value->due);
    context.reply.integer(isCopied ? 1 : 0);
}

// All keys

void keys(CommandContext& context, Arguments words) {
    context.next = CommandContext::Next::walk;
    context.pattern = words[1].view;
}

void dbsize(CommandContext& context, Arguments words) {
    if (words.size() == 1)
        context.reply.integer(static_cast<S64>(store(context).size()));
    else if (isWord(words[1], "EXACT"))
        context.next = CommandContext::Next::walk;
    else
        context.reply.error("syntax error");
}

/// Leaves as many keys to the scavenger as it frees of what is left there already: keys that are written and
/// flushed over and over would fill the memory else.
class Flush {
  public:
    explicit Flush(Store const& store) : owed_(store.size()) {}

    /// One step; true while there is more.
    bool operator()(CommandContext& context) {
        for (std::size_t i = 0; i < keysAtOnce; ++i, --owed_)
            if (owed_ == 0 || !store(context).scavenger()->dropOne()) {
                store(context).clear();
                context.reply.status("OK");
                return false;
            }
        return true;
    }

  private:
    static constexpr std::size_t keysAtOnce = 8;

    std::size_t owed_;
};

/// Memory is freed by and by, whatever is asked for.
void flush(CommandContext& context, Arguments words) {
    if (words.size() > 1 && !isWord(words[1], "ASYNC") && !isWord(words[1], "SYNC"))
        return context.reply.error("syntax error");
    Flush steps(store(context));
    if (steps(context))
        context.rest = steps;
}

/// One try: false when the key's time is over.
bool replyRandomKey(CommandContext& context) {
    Store& keys = store(context);
    if (keys.size() == 0) {
        context.reply.null();
        return true;
    }
    std::uniform_int_distribution<std::size_t> number(0, keys.size() - 1);
    std::string const key = keys.key(number(context.engine.random)).text;
    if (!keys.find(key)) // which erases it
        return false;
    context.reply.bulk(key);
    return true;
}

void randomKey(CommandContext& context, Arguments) {
    if (!replyRandomKey(context))
        context.rest = [](CommandContext& step) { return !replyRandomKey(step); };
}

/// A part of all keys, and the cursor with which the next one begins.
class Scan {
  public:
    Scan(Store const& of, std::string pattern, Mox::U64 cursor, std::size_t keys, bool isOfStrings)
        : search_(of, std::move(pattern), cursor), keysLeft_(keys), isOfStrings_(isOfStrings) {}

    /// One step; true while there is more. It ends early when the reply becomes large: the number of keys is
    /// no more than a hint.
    bool operator()(CommandContext& context) {
        std::size_t const before = search_.visited();
        search_.step([this](std::string_view key) { add(key); }, keysLeft_);
        keysLeft_ -= std::min(keysLeft_, search_.visited() - before);
        bool const isMore =
            search_.hasLongKey() || (!search_.isDone() && keysLeft_ > 0 && found_.size() < stepBytes);
        if (!isMore)
            reply(context);
        return isMore;
    }

  private:
    void add(std::string_view key) {
        if (!isOfStrings_)
            return;
        ++count_;
        appendBulk(found_, key);
    }
    void reply(CommandContext& context) {
        context.reply.array(2);
        context.reply.bulk(search_.isDone() ? "0" : std::to_string(search_.position()));
        context.reply.array(count_);
        context.reply.written(std::move(found_));
    }

    KeySearch search_;
    std::size_t keysLeft_;
    bool isOfStrings_; // which all values are
    std::size_t count_ = 0;
    std::string found_;
};

struct ScanOptions {
    std::string pattern = "*";
    std::size_t keys = 10;
    bool isOfStrings = true;
};

/// Nothing, and an error reply, when they are none.
std::optional<ScanOptions> readScanOptions(CommandContext& context, Arguments words) {
    ScanOptions options;
    for (; words.size() >= 2; words = words.subspan(2)) {
        std::optional<S64> const count = readInteger(words[1]);
        bool const isCount = isWord(words[0], "COUNT");
        if (isCount && !count) {
            replyNoInteger(context);
            return std::nullopt;
        }
        if (isCount && *count > 0)
            options.keys = static_cast<std::size_t>(std::min<S64>(*count, S64{1} << 30));
        else if (!isCount && isWord(words[0], "MATCH"))
            options.pattern = words[1].view;
        else if (!isCount && isWord(words[0], "TYPE"))
            options.isOfStrings = isWord(words[1], "string");
        else
            break;
    }
    if (words.empty())
        return options;
    context.reply.error("syntax error");
    return std::nullopt;
}

void scan(CommandContext& context, Arguments words) {
    Mox::U64 cursor = 0;
    if (!readNumber(words[1], cursor))
        return context.reply.error("invalid cursor");
    std::optional<ScanOptions> const options = readScanOptions(context, words.subspan(2));
    if (!options)
        return;
    auto const steps =
        std::make_shared<Scan>(store(context), options->pattern, cursor, options->keys, options->isOfStrings);
    if ((*steps)(context))
        context.rest = [steps](CommandContext& step) { return (*steps)(step); };
}

constexpr Command commands[] = {
    {"DEL", 2, any, countKeys<erase>, Command::allKeys, 1},
    {"UNLINK", 2, any, countKeys<erase>, Command::allKeys, 1},
    {"EXISTS", 2, any, countKeys<isThere>, Command::allKeys, 1},
    {"TOUCH", 2, any, countKeys<isThere>, Command::allKeys, 1},
    {"TYPE", 2, 2, type, Command::oneKey},
    {"RENAME", 3, 3, rename, Command::twoKeys},
    {"RENAMENX", 3, 3, renameNew, Command::twoKeys},
    {"COPY", 3, 6, copy, Command::twoKeys},
    {"KEYS", 2, 2, keys},
    {"SCAN", 2, 8, scan},
    {"RANDOMKEY", 1, 1, randomKey},
    {"DBSIZE", 1, 2, dbsize},
    {"FLUSHALL", 1, 2, flush},
    {"FLUSHDB", 1, 2, flush},
};

} // namespace

std::span<Command const> keyCommands() { return commands; }

} // namespace KelKv
