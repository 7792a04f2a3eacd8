#include "Lifetime.h"
#include "Number.h"

#include <algorithm>
#include <cmath>
#include <limits>

// Commands on times to live.

namespace KelKv {

using Mox::S64;

/// Of a text that is longer than any, nothing is read.
std::optional<S64> readInteger(std::string_view text) {
    constexpr std::size_t longest = std::numeric_limits<S64>::digits10 + 2; // a digit more, and a sign
    S64 value = 0;
    bool const hasZeros = text.size() > 1 && (text.starts_with('0') || text.starts_with("-0"));
    return text.size() <= longest && !hasZeros && readNumber(text, value) ? std::optional(value)
                                                                          : std::nullopt;
}

void replyNoInteger(CommandContext& context) {
    context.reply.error("value is not an integer or out of range");
}

std::optional<Mox::Seconds> readDue(CommandContext& context, std::string_view command, LifeUnit unit,
                                    std::string_view text, S64 least) {
    std::optional<S64> const units = readInteger(text);
    if (!units) {
        replyNoInteger(context);
        return std::nullopt;
    }
    S64 msec = 0;
    if (*units < least || __builtin_mul_overflow(*units, unit.msec, &msec) ||
        (!unit.isCalendar && msec > LifeUnit::msecMax)) {
        context.reply.error("invalid expire time in '" + lowerCase(command) + "' command");
        return std::nullopt;
    }
    Mox::Seconds const seconds = static_cast<double>(msec) * 0.001;
    return Mox::now() + (unit.isCalendar ? seconds - context.engine.calendarTime() : seconds);
}

std::optional<LifeUnit> lifeUnit(std::string_view option) {
    if (isWord(option, "EX"))
        return secondsFromNow;
    if (isWord(option, "PX"))
        return msecFromNow;
    if (isWord(option, "EXAT"))
        return secondsOfCalendar;
    if (isWord(option, "PXAT"))
        return msecOfCalendar;
    return std::nullopt;
}

namespace {

/// The conditions under which EXPIRE takes effect. Lives are given in milliseconds: two moments that were
/// asked for as one may come out a little apart.
struct Conditions {
    static constexpr Mox::Seconds same = 0.0005;

    bool hasNone = false;
    bool hasOne = false;
    bool isLater = false;
    bool isEarlier = false;

    bool areMet(Store::Value const& value, Mox::Seconds due) const {
        return (!hasNone || !value.expiry) && (!hasOne || value.expiry) &&
               (!isLater || due > value.due + same) && (!isEarlier || due < value.due - same);
    }
};

/// Nothing, and an error reply, when they are none, or contradict each other.
std::optional<Conditions> readConditions(CommandContext& context, Arguments words) {
    Conditions is;
    for (std::string_view const word : words)
        if (isWord(word, "NX"))
            is.hasNone = true;
        else if (isWord(word, "XX"))
            is.hasOne = true;
        else if (isWord(word, "GT"))
            is.isLater = true;
        else if (isWord(word, "LT"))
            is.isEarlier = true;
        else {
            context.reply.error("Unsupported option " + std::string(word.substr(0, 64)));
            return std::nullopt;
        }
    if (is.hasNone && (is.hasOne || is.isLater || is.isEarlier))
        context.reply.error("NX and XX, GT or LT options at the same time are not compatible");
    else if (is.isLater && is.isEarlier)
        context.reply.error("GT and LT options at the same time are not compatible");
    else
        return is;
    return std::nullopt;
}

/// The key is gone at once when its time is over already.
template <LifeUnit const& unit> void expire(CommandContext& context, Arguments words) {
    std::optional<Conditions> const conditions = readConditions(context, words.subspan(3));
    if (!conditions)
        return;
    std::optional<Mox::Seconds> const due = readDue(context, words[0], unit, words[2]);
    if (!due)
        return;
    Store& store = context.engine.store;
    Store::Value* const value = store.find(words[1]);
    bool const isSet = value && conditions->areMet(*value, *due);
    if (isSet && *due > Mox::now())
        store.dueIs(words[1], *value, *due);
    else if (isSet)
        store.erase(words[1]);
    context.reply.integer(isSet ? 1 : 0);
}

/// The greatest number for all that is greater. Milliseconds first, so that 50 that begin now are 50.
S64 units(Mox::Seconds seconds, LifeUnit const& unit) {
    double const msec = std::min(seconds * 1000, 0x1.fffffffffffffp62);
    return (std::llround(msec) + unit.msec / 2) / unit.msec;
}

/// How long the key lives from now on, or the moment of its end.
template <LifeUnit const& unit> void lifeLeft(CommandContext& context, Arguments words) {
    Store::Value const* const value = context.engine.store.find(words[1]);
    if (!value || !value->expiry)
        return context.reply.integer(value ? -1 : -2);
    Mox::Seconds const left = value->due - Mox::now();
    context.reply.integer(units(unit.isCalendar ? context.engine.calendarTime() + left : left, unit));
}

void persist(CommandContext& context, Arguments words) {
    Store::Value* const value = context.engine.store.find(words[1]);
    bool const had = value && value->expiry;
    if (had)
        context.engine.store.expiryDel(*value);
    context.reply.integer(had ? 1 : 0);
}

constexpr Command commands[] = {
    {"EXPIRE", 3, 7, expire<secondsFromNow>, Command::oneKey},
    {"PEXPIRE", 3, 7, expire<msecFromNow>, Command::oneKey},
    {"EXPIREAT", 3, 7, expire<secondsOfCalendar>, Command::oneKey},
    {"PEXPIREAT", 3, 7, expire<msecOfCalendar>, Command::oneKey},
    {"TTL", 2, 2, lifeLeft<secondsFromNow>, Command::oneKey},
    {"PTTL", 2, 2, lifeLeft<msecFromNow>, Command::oneKey},
    {"EXPIRETIME", 2, 2, lifeLeft<secondsOfCalendar>, Command::oneKey},
    {"PEXPIRETIME", 2, 2, lifeLeft<msecOfCalendar>, Command::oneKey},
    {"PERSIST", 2, 2, persist, Command::oneKey},
};

} // namespace

std::span<Command const> lifeCommands() { return commands; }

} // namespace KelKv
