#pragma once

#include "Commands.h"

#include <limits>
#include <optional>
#include <string_view>

namespace KelKv {

/// How a client gives the end of a key's life: in which unit, and counted from when.
struct LifeUnit {
    Mox::S64 msec;
    bool isCalendar; // since 1970; else from now on

    static constexpr Mox::S64 msecMax = Mox::S64{1} << 62; // from now on
};
constexpr LifeUnit secondsFromNow{1000, false};
constexpr LifeUnit msecFromNow{1, false};
constexpr LifeUnit secondsOfCalendar{1000, true};
constexpr LifeUnit msecOfCalendar{1, true};

/// The number in a text, if it is one as INCR writes it.
std::optional<Mox::S64> readInteger(std::string_view text);
void replyNoInteger(CommandContext& context);

/// When the life is over, by Mox::now(). Nothing, and an error reply for the command of that name, when the
/// text is no integer, or one that is less than `least`, or is beyond the bound: 2^62 milliseconds from now,
/// or a moment that does not fit 64 bits as milliseconds since 1970.
std::optional<Mox::Seconds> readDue(CommandContext& context, std::string_view command, LifeUnit unit,
                                    std::string_view text,
                                    Mox::S64 least = std::numeric_limits<Mox::S64>::min());

/// The unit that an option names: EX, PX, EXAT or PXAT.
std::optional<LifeUnit> lifeUnit(std::string_view option);

} // namespace KelKv
