#include "Commands.h"

#include "Connection.h"
#include "Daemon.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

namespace KelKv {

namespace {

using Mox::S64;

constexpr std::size_t any = Limits::arguments;
constexpr std::size_t replyMax = 4 << 20; // bytes of values in one reply

Store& store(Connection& connection) { return connection.daemon().store(); }

std::optional<S64> number(std::string_view text) {
    S64 value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/// Seconds to live from a number of such units; nothing, and an error reply, when it is none.
std::optional<Mox::Seconds> delay(Connection& connection, std::string_view text, double unit) {
    std::optional<S64> const units = number(text);
    if (!units)
        connection.reply().error("the time to live is no integer");
    return units ? std::optional(static_cast<double>(*units) * unit) : std::nullopt;
}

// Values

void get(Connection& connection, Arguments words) {
    if (Store::Value const* const value = store(connection).find(words[1]))
        connection.reply().bulk(value->text);
    else
        connection.reply().null();
}

void set(Connection& connection, Arguments words) {
    if (words.size() == 3) {
        store(connection).set(words[1], words[2]);
        return connection.reply().status("OK");
    }
    bool const inSeconds = isWord(words[3], "EX");
    if (words.size() != 5 || (!inSeconds && !isWord(words[3], "PX")))
        return connection.reply().error("syntax error");
    std::optional<Mox::Seconds> const seconds = delay(connection, words[4], inSeconds ? 1.0 : 0.001);
    if (!seconds)
        return;
    if (*seconds <= 0.0)
        return connection.reply().error("the time to live is not positive");
    store(connection).expiryIs(words[1], store(connection).set(words[1], words[2]), *seconds);
    connection.reply().status("OK");
}

void mget(Connection& connection, Arguments words) {
    std::size_t bytes = 0;
    for (std::string_view const key : words.subspan(1))
        if (Store::Value const* const value = store(connection).find(key))
            bytes += value->text.size();
    if (bytes > replyMax)
        return connection.reply().error("the reply would be too large");
    connection.reply().array(words.size() - 1);
    for (std::string_view const key : words.subspan(1))
        get(connection, std::array{std::string_view(), key});
}

void mset(Connection& connection, Arguments words) {
    if (words.size() % 2 == 0)
        return connection.reply().error("a key without a value");
    for (std::size_t i = 1; i < words.size(); i += 2)
        store(connection).set(words[i], words[i + 1]);
    connection.reply().status("OK");
}

void incr(Connection& connection, Arguments words) {
    Store::Value* const value = store(connection).find(words[1]);
    std::optional<S64> const old = value ? number(value->text) : 0;
    if (!old)
        return connection.reply().error("the value is no integer");
    if (*old == std::numeric_limits<S64>::max())
        return connection.reply().error("the value is at its maximum");
    if (value)
        value->text = std::to_string(*old + 1); // it keeps its expiry
    else
        store(connection).set(words[1], "1");
    connection.reply().integer(*old + 1);
}

/// Replies with the number of keys for which it is true.
template <class F> void countKeys(Connection& connection, Arguments words, F isCounted) {
    S64 count = 0;
    for (std::string_view const key : words.subspan(1))
        count += isCounted(key) ? 1 : 0;
    connection.reply().integer(count);
}

void del(Connection& connection, Arguments words) {
    countKeys(connection, words, [&](std::string_view key) { return store(connection).erase(key); });
}

void exists(Connection& connection, Arguments words) {
    countKeys(connection, words,
              [&](std::string_view key) { return store(connection).find(key) != nullptr; });
}

// Times to live

void expireIn(Connection& connection, Arguments words, double unit) {
    std::optional<Mox::Seconds> const seconds = delay(connection, words[2], unit);
    if (!seconds)
        return;
    Store::Value* const value = store(connection).find(words[1]);
    if (value && *seconds > 0.0)
        store(connection).expiryIs(words[1], *value, *seconds);
    else if (value)
        store(connection).erase(words[1]);
    connection.reply().integer(value ? 1 : 0);
}

void timeToLive(Connection& connection, Arguments words, double unitsPerSecond) {
    Store::Value const* const value = store(connection).find(words[1]);
    if (!value)
        connection.reply().integer(-2);
    else if (!value->expiry)
        connection.reply().integer(-1);
    else
        connection.reply().integer(std::llround((value->expiry->time() - Mox::now()) * unitsPerSecond));
}

void persist(Connection& connection, Arguments words) {
    Store::Value* const value = store(connection).find(words[1]);
    bool const had = value && value->expiry;
    if (had)
        store(connection).expiryDel(*value);
    connection.reply().integer(had ? 1 : 0);
}

// All keys

void keys(Connection& connection, Arguments words) { connection.walkIs(std::string(words[1])); }

void dbsize(Connection& connection, Arguments words) {
    if (words.size() == 1)
        connection.reply().integer(static_cast<S64>(store(connection).size()));
    else if (isWord(words[1], "EXACT"))
        connection.walkIs(std::nullopt);
    else
        connection.reply().error("syntax error");
}

void flushall(Connection& connection, Arguments) {
    store(connection).clear();
    connection.reply().status("OK");
}

constexpr Command commands[] = {
    {"GET", 2, 2, get},
    {"SET", 3, 5, set},
    {"MGET", 2, any, mget},
    {"MSET", 3, any, mset},
    {"INCR", 2, 2, incr},
    {"DEL", 2, any, del},
    {"EXISTS", 2, any, exists},
    {"EXPIRE", 3, 3, [](Connection& c, Arguments words) { expireIn(c, words, 1.0); }},
    {"PEXPIRE", 3, 3, [](Connection& c, Arguments words) { expireIn(c, words, 0.001); }},
    {"TTL", 2, 2, [](Connection& c, Arguments words) { timeToLive(c, words, 1.0); }},
    {"PTTL", 2, 2, [](Connection& c, Arguments words) { timeToLive(c, words, 1000.0); }},
    {"PERSIST", 2, 2, persist},
    {"KEYS", 2, 2, keys},
    {"DBSIZE", 1, 2, dbsize},
    {"FLUSHALL", 1, 2, flushall},
};

} // namespace

std::span<Command const> keyCommands() { return commands; }

} // namespace KelKv
