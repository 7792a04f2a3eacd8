#include "Commands.h"
#include "Number.h"

#include <cmath>
#include <limits>
#include <optional>

namespace KelKv {

namespace {

using Mox::S64;

constexpr std::size_t any = Limits::arguments;
constexpr std::size_t replyMax = 4 << 20; // bytes of values in one reply

std::optional<S64> number(std::string_view text) {
    S64 value = 0;
    return readNumber(text, value) ? std::optional(value) : std::nullopt;
}

/// The greatest number for all that is greater: a key may live for so many seconds, and for more
/// milliseconds.
S64 rounded(double number) {
    return number < 0x1p63 ? std::llround(number) : std::numeric_limits<S64>::max();
}

/// Seconds to live from a number of such units; nothing, and an error reply, when it is none.
std::optional<Mox::Seconds> delay(CommandContext& context, std::string_view text, double unit) {
    std::optional<S64> const units = number(text);
    if (!units)
        context.reply.error("the time to live is no integer");
    return units ? std::optional(static_cast<double>(*units) * unit) : std::nullopt;
}

// Values

void get(CommandContext& context, Arguments words) {
    if (Store::Value const* const value = context.engine.store.find(words[1]))
        context.reply.bulk(value->text);
    else
        context.reply.null();
}

void set(CommandContext& context, Arguments words) {
    if (words.size() == 3) {
        context.engine.store.set(words[1], words[2]);
        return context.reply.status("OK");
    }
    bool const inSeconds = isWord(words[3], "EX");
    if (words.size() != 5 || (!inSeconds && !isWord(words[3], "PX")))
        return context.reply.error("syntax error");
    std::optional<Mox::Seconds> const seconds = delay(context, words[4], inSeconds ? 1.0 : 0.001);
    if (!seconds)
        return;
    if (*seconds <= 0.0)
        return context.reply.error("the time to live is not positive");
    context.engine.store.expiryIs(words[1], context.engine.store.set(words[1], words[2]), *seconds);
    context.reply.status("OK");
}

void mget(CommandContext& context, Arguments words) {
    std::size_t bytes = 0;
    for (std::string_view const key : words.subspan(1))
        if (Store::Value const* const value = context.engine.store.find(key))
            bytes += value->text.size();
    if (bytes > replyMax)
        return context.reply.error("the reply would be too large");
    context.reply.array(words.size() - 1);
    for (std::string_view const key : words.subspan(1))
        get(context, std::array{std::string_view(), key});
}

void mset(CommandContext& context, Arguments words) {
    if (words.size() % 2 == 0)
        return context.reply.error("a key without a value");
    for (std::size_t i = 1; i < words.size(); i += 2)
        context.engine.store.set(words[i], words[i + 1]);
    context.reply.status("OK");
}

void incr(CommandContext& context, Arguments words) {
    Store::Value* const value = context.engine.store.find(words[1]);
    std::optional<S64> const old = value ? number(value->text) : 0;
    if (!old)
        return context.reply.error("the value is no integer");
    if (*old == std::numeric_limits<S64>::max())
        return context.reply.error("the value is at its maximum");
    if (value)
        value->text = std::to_string(*old + 1); // it keeps its expiry
    else
        context.engine.store.set(words[1], "1");
    context.reply.integer(*old + 1);
}

/// Replies with the number of keys for which it is true.
template <class F> void countKeys(CommandContext& context, Arguments words, F isCounted) {
    S64 count = 0;
    for (std::string_view const key : words.subspan(1))
        count += isCounted(key) ? 1 : 0;
    context.reply.integer(count);
}

void del(CommandContext& context, Arguments words) {
    countKeys(context, words, [&](std::string_view key) { return context.engine.store.erase(key); });
}

void exists(CommandContext& context, Arguments words) {
    countKeys(context, words,
              [&](std::string_view key) { return context.engine.store.find(key) != nullptr; });
}

// Times to live

void expireIn(CommandContext& context, Arguments words, double unit) {
    std::optional<Mox::Seconds> const seconds = delay(context, words[2], unit);
    if (!seconds)
        return;
    Store::Value* const value = context.engine.store.find(words[1]);
    if (value && *seconds > 0.0)
        context.engine.store.expiryIs(words[1], *value, *seconds);
    else if (value)
        context.engine.store.erase(words[1]);
    context.reply.integer(value ? 1 : 0);
}

void timeToLive(CommandContext& context, Arguments words, double unitsPerSecond) {
    Store::Value const* const value = context.engine.store.find(words[1]);
    if (!value)
        context.reply.integer(-2);
    else if (!value->expiry)
        context.reply.integer(-1);
    else
        context.reply.integer(rounded((value->expiry->time() - Mox::now()) * unitsPerSecond));
}

void persist(CommandContext& context, Arguments words) {
    Store::Value* const value = context.engine.store.find(words[1]);
    bool const had = value && value->expiry;
    if (had)
        context.engine.store.expiryDel(*value);
    context.reply.integer(had ? 1 : 0);
}

// All keys

void keys(CommandContext& context, Arguments words) {
    context.next = CommandContext::Next::walk;
    context.pattern = words[1];
}

void dbsize(CommandContext& context, Arguments words) {
    if (words.size() == 1)
        context.reply.integer(static_cast<S64>(context.engine.store.size()));
    else if (isWord(words[1], "EXACT"))
        context.next = CommandContext::Next::walk;
    else
        context.reply.error("syntax error");
}

void flushall(CommandContext& context, Arguments) {
    context.engine.store.clear();
    context.reply.status("OK");
}

constexpr Command commands[] = {
    {"GET", 2, 2, get},
    {"SET", 3, 5, set},
    {"MGET", 2, any, mget},
    {"MSET", 3, any, mset},
    {"INCR", 2, 2, incr},
    {"DEL", 2, any, del},
    {"EXISTS", 2, any, exists},
    {"EXPIRE", 3, 3, [](CommandContext& c, Arguments words) { expireIn(c, words, 1.0); }},
    {"PEXPIRE", 3, 3, [](CommandContext& c, Arguments words) { expireIn(c, words, 0.001); }},
    {"TTL", 2, 2, [](CommandContext& c, Arguments words) { timeToLive(c, words, 1.0); }},
    {"PTTL", 2, 2, [](CommandContext& c, Arguments words) { timeToLive(c, words, 1000.0); }},
    {"PERSIST", 2, 2, persist},
    {"KEYS", 2, 2, keys},
    {"DBSIZE", 1, 2, dbsize},
    {"FLUSHALL", 1, 2, flushall},
};

} // namespace

std::span<Command const> keyCommands() { return commands; }

} // namespace KelKv
