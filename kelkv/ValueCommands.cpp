#include "Lifetime.h"
#include "Number.h"
#include "Steps.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

// Commands on values, as texts and as numbers.

namespace KelKv {

namespace {

using Mox::S64;

constexpr std::size_t any = Limits::words;

Store& store(CommandContext& context) { return context.engine.store; }

void replyText(CommandContext& context, Store::Value const* value) {
    if (value)
        context.reply.bulk(value->text);
    else
        context.reply.null();
}

// Reading and writing

void get(CommandContext& context, Arguments words) { replyText(context, store(context).find(words[1])); }

/// What SET is told beside key and value.
struct SetOptions {
    std::optional<Mox::Seconds> due = std::nullopt; // of the new value
    bool keepsDue = false;
    bool repliesOld = false;
    bool onlyNew = false;
    bool onlyOld = false;
};

/// An error reply, and nothing, when it is none of those.
template <class Options>
std::optional<Options> readOptions(CommandContext& context, Arguments words, std::size_t from,
                                   bool (*isOption)(Options& options, std::string_view word)) {
    Options options;
    for (std::size_t i = from; i < words.size(); ++i) {
        std::optional<LifeUnit> const unit = lifeUnit(words[i]);
        if (unit && !options.due && i + 1 < words.size()) {
            options.due = readDue(context, words[0], *unit, words[++i], 1);
            if (!options.due)
                return std::nullopt;
        } else if (unit || !isOption(options, words[i].view)) {
            context.reply.error("syntax error");
            return std::nullopt;
        }
    }
    return options;
}

bool isSetOption(SetOptions& options, std::string_view word) {
    if (isWord(word, "NX"))
        options.onlyNew = true;
    else if (isWord(word, "XX"))
        options.onlyOld = true;
    else if (isWord(word, "GET"))
        options.repliesOld = true;
    else if (isWord(word, "KEEPTTL"))
        options.keepsDue = true;
    else
        return false;
    return true;
}

void setAs(CommandContext& context, Arguments words, SetOptions const& options) {
    Store::Value* const old = store(context).find(words[1]);
    bool const isSet = old ? !options.onlyNew : !options.onlyOld;
    if (options.repliesOld)
        replyText(context, old);
    else if (isSet)
        context.reply.status("OK");
    else
        context.reply.null();
    if (!isSet)
        return;
    if (old && options.keepsDue) {
        store(context).textIs(*old, Text(words[2], store(context).scavenger()));
        return;
    }
    Store::Value& value = store(context).set(words[1], words[2]);
    if (options.due)
        store(context).dueIs(words[1], value, *options.due);
}

void set(CommandContext& context, Arguments words) {
    if (words.size() == 3) {
        store(context).set(words[1], words[2]);
        return context.reply.status("OK");
    }
    auto const options = readOptions<SetOptions>(context, words, 3, isSetOption);
    if (!options)
        return;
    if ((options->onlyNew && options->onlyOld) || (options->keepsDue && options->due))
        return context.reply.error("syntax error");
    setAs(context, words, *options);
}

void setNew(CommandContext& context, Arguments words) {
    bool const isNew = !store(context).find(words[1]);
    if (isNew)
        store(context).set(words[1], words[2]);
    context.reply.integer(isNew ? 1 : 0);
}

/// SETEX and PSETEX: key, time to live, value.
template <LifeUnit const& unit> void setLiving(CommandContext& context, Arguments words) {
    std::optional<Mox::Seconds> const due = readDue(context, words[0], unit, words[2], 1);
    if (!due)
        return;
    store(context).dueIs(words[1], store(context).set(words[1], words[3]), *due);
    context.reply.status("OK");
}

void getSet(CommandContext& context, Arguments words) {
    replyText(context, store(context).find(words[1]));
    store(context).set(words[1], words[2]);
}

void getDel(CommandContext& context, Arguments words) {
    replyText(context, store(context).find(words[1]));
    store(context).erase(words[1]);
}

struct GetOptions {
    std::optional<Mox::Seconds> due = std::nullopt; // from now on
    bool isForEver = false;
};

bool isGetOption(GetOptions& options, std::string_view word) {
    options.isForEver = isWord(word, "PERSIST");
    return options.isForEver;
}

void getEx(CommandContext& context, Arguments words) {
    auto const options = readOptions<GetOptions>(context, words, 2, isGetOption);
    if (!options)
        return;
    if (options->isForEver && options->due)
        return context.reply.error("syntax error");
    Store::Value* const value = store(context).find(words[1]);
    replyText(context, value);
    if (value && options->isForEver)
        store(context).expiryDel(*value);
    else if (value && options->due)
        store(context).dueIs(words[1], *value, *options->due);
}

// Several

/// The values of keys.
struct Getting {
    std::size_t take(CommandContext& context, Arguments key) {
        std::size_t const before = context.reply.unsent();
        Store::Value const* const value = findAny(store(context), key[0]);
        replyText(context, value);
        return value && value->text.isLong() ? 0 : context.reply.unsent() - before;
    }
    void end(CommandContext&) {}
};

void getMany(CommandContext& context, Arguments words) {
    context.reply.array(words.size() - 1);
    forEachWord(context, words.subspan(1), 1, Getting());
}

/// Pairs of keys and values.
struct Setting {
    std::size_t take(CommandContext& context, Arguments pair) {
        if (!pair[0].text)
            store(context).set(pair[0], pair[1]);
        isKeyTooLong = isKeyTooLong || pair[0].text;
        return 0;
    }
    void end(CommandContext& context) {
        if (isKeyTooLong)
            context.reply.error("a key is too long; all others are set");
        else
            context.reply.status("OK");
    }

    bool isKeyTooLong = false;
};

void setMany(CommandContext& context, Arguments words) {
    if (words.size() % 2 == 0)
        return replyWrongCount(context, words[0]);
    forEachWord(context, words.subspan(1), 2, Setting());
}

/// All or none: in one step, which is bounded.
void setManyNew(CommandContext& context, Arguments words) {
    constexpr std::size_t most = stepBytes / wordBytes; // words
    Arguments const pairs = words.subspan(1);
    if (words.size() % 2 == 0)
        return replyWrongCount(context, words[0]);
    std::size_t bytes = 0;
    for (Word const& word : pairs.first(std::min(pairs.size(), most)))
        bytes += word.view.size();
    if (pairs.size() > most || bytes > Limits::wordInOnePiece)
        return context.reply.error("MSETNX takes " + std::to_string(most / 2) +
                                   " pairs and a MiB at most, for nobody may come between");
    bool isNew = true;
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
        if (pairs[i].text)
            return context.reply.error("a key is too long");
        isNew = isNew && !store(context).find(pairs[i]);
    }
    for (std::size_t i = 0; isNew && i < pairs.size(); i += 2)
        store(context).set(pairs[i], pairs[i + 1]);
    context.reply.integer(isNew ? 1 : 0);
}

// Texts

void replyTooLong(CommandContext& context) {
    context.reply.error("string exceeds maximum allowed size (512MB)");
}

void append(CommandContext& context, Arguments words) {
    Store::Value* value = store(context).find(words[1]);
    std::size_t const size = (value ? value->text.size() : 0) + words[2].size();
    if (size > Text::sizeMax)
        return replyTooLong(context);
    if (value)
        value->text.append(words[2], store(context).scavenger());
    else
        store(context).set(words[1], words[2]);
    context.reply.integer(static_cast<S64>(size));
}

void textSize(CommandContext& context, Arguments words) {
    Store::Value const* const value = store(context).find(words[1]);
    context.reply.integer(value ? static_cast<S64>(value->text.size()) : 0);
}

/// A place in a text, from its end when negative; before its beginning there may be none.
S64 place(S64 at, S64 size) { return at < 0 ? at + size : at; }

void getRange(CommandContext& context, Arguments words) {
    std::optional<S64> const first = readInteger(words[2]);
    std::optional<S64> const last = readInteger(words[3]);
    if (!first || !last)
        return replyNoInteger(context);
    Store::Value const* const value = store(context).find(words[1]);
    S64 const size = value ? static_cast<S64>(value->text.size()) : 0;
    S64 const begin = std::max<S64>(place(*first, size), 0);
    S64 const end = std::min(place(*last, size), size - 1);
    if (begin > end)
        return context.reply.bulk(std::string_view());
    context.reply.bulk(value->text, static_cast<std::size_t>(begin),
                       static_cast<std::size_t>(end - begin + 1));
}

/// The value becomes that text, and keeps its life.
void replace(CommandContext& context, std::string_view key, Store::Value* value, std::string&& text) {
    if (value)
        store(context).textIs(*value, Text(std::move(text)));
    else
        store(context).set(key, Text(std::move(text)));
}

/// A long text is not changed in place: it may be being sent, and copying it takes long.
void setRange(CommandContext& context, Arguments words) {
    std::optional<S64> const at = readInteger(words[2]);
    if (!at)
        return replyNoInteger(context);
    if (*at < 0)
        return context.reply.error("offset is out of range");
    Store::Value* const value = store(context).find(words[1]);
    std::size_t const size = value ? value->text.size() : 0;
    std::string_view const bytes = words[3];
    if (bytes.empty())
        return context.reply.integer(static_cast<S64>(size));
    if (static_cast<Mox::U64>(*at) > Text::sizeMax - bytes.size())
        return replyTooLong(context);
    std::size_t const begin = static_cast<std::size_t>(*at);
    if (std::max(size, begin + bytes.size()) > Text::shortMax)
        return context.reply.error("SETRANGE is for texts of " + std::to_string(Text::shortMax) +
                                   " bytes at most");
    std::string text(value ? value->text.view() : std::string_view());
    text.resize(std::max(size, begin + bytes.size()));
    bytes.copy(text.data() + begin, bytes.size());
    context.reply.integer(static_cast<S64>(text.size()));
    context.copied += text.size();
    replace(context, words[1], value, std::move(text));
}

// Numbers

void add(CommandContext& context, std::string_view key, S64 more) {
    Store::Value* const value = store(context).find(key);
    std::optional<S64> old = 0;
    if (value)
        old = value->text.isLong() ? std::nullopt : readInteger(value->text.view());
    S64 sum = 0;
    if (!old)
        return replyNoInteger(context);
    if (__builtin_add_overflow(*old, more, &sum))
        return context.reply.error("increment or decrement would overflow");
    replace(context, key, value, std::to_string(sum));
    context.reply.integer(sum);
}

void addGiven(CommandContext& context, Arguments words) {
    if (std::optional<S64> const more = readInteger(words[2]))
        add(context, words[1], *more);
    else
        replyNoInteger(context);
}

void subtractGiven(CommandContext& context, Arguments words) {
    std::optional<S64> const less = readInteger(words[2]);
    if (!less)
        replyNoInteger(context);
    else if (*less == std::numeric_limits<S64>::min())
        context.reply.error("decrement would overflow");
    else
        add(context, words[1], -*less);
}

/// Of a text that is longer than any number is written, nothing is read.
std::optional<long double> readFloat(std::string_view text) {
    constexpr std::size_t longest = std::numeric_limits<long double>::max_exponent10 + 64;
    long double value = 0;
    if (text.size() > longest)
        return std::nullopt;
    if (text.starts_with('+'))
        text.remove_prefix(1);
    return readNumber(text, value) && !std::isnan(value) ? std::optional(value) : std::nullopt;
}

/// In 17 digits behind the point, without the zeros at the end.
std::string floatText(long double value) {
    std::array<char, std::numeric_limits<long double>::max_exponent10 + 32> digits;
    auto const end = std::to_chars(digits.begin(), digits.end(), value, std::chars_format::fixed, 17).ptr;
    std::string text(digits.begin(), end);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.'))
        text.pop_back();
    return text == "-0" ? "0" : text;
}

void addFloat(CommandContext& context, Arguments words) {
    Store::Value* const value = store(context).find(words[1]);
    std::optional<long double> const more = readFloat(words[2]);
    std::optional<long double> old = 0;
    if (value)
        old = value->text.isLong() ? std::nullopt : readFloat(value->text.view());
    if (!more || !old)
        return context.reply.error("value is not a valid float");
    if (!std::isfinite(*old + *more))
        return context.reply.error("increment would produce NaN or Infinity");
    std::string const text = floatText(*old + *more);
    replace(context, words[1], value, std::string(text));
    context.reply.bulk(text);
}

constexpr Command commands[] = {
    {"GET", 2, 2, get, Command::oneKey},
    {"SET", 3, 10, set, Command::oneKey, 2},
    {"SETNX", 3, 3, setNew, Command::oneKey, 2},
    {"SETEX", 4, 4, setLiving<secondsFromNow>, Command::oneKey, 3},
    {"PSETEX", 4, 4, setLiving<msecFromNow>, Command::oneKey, 3},
    {"GETSET", 3, 3, getSet, Command::oneKey, 2},
    {"GETDEL", 2, 2, getDel, Command::oneKey},
    {"GETEX", 2, 6, getEx, Command::oneKey},
    {"MGET", 2, any, getMany, Command::allKeys, 1},
    {"MSET", 3, any, setMany, Command::allPairs, 2},
    {"MSETNX", 3, any, setManyNew, Command::allPairs, 2},
    {"APPEND", 3, 3, append, Command::oneKey, 2},
    {"STRLEN", 2, 2, textSize, Command::oneKey},
    {"GETRANGE", 4, 4, getRange, Command::oneKey},
    {"SETRANGE", 4, 4, setRange, Command::oneKey},
    {"INCR", 2, 2, [](CommandContext& c, Arguments words) { add(c, words[1], 1); }, Command::oneKey},
    {"DECR", 2, 2, [](CommandContext& c, Arguments words) { add(c, words[1], -1); }, Command::oneKey},
    {"INCRBY", 3, 3, addGiven, Command::oneKey},
    {"DECRBY", 3, 3, subtractGiven, Command::oneKey},
    {"INCRBYFLOAT", 3, 3, addFloat, Command::oneKey},
};

} // namespace

std::span<Command const> valueCommands() { return commands; }

} // namespace KelKv
