#include <mox/Assert.h>
#include <mox/NboAttrLog.h>
#include <mox/Strep.h>
#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>
#include <task/TaskStat.h>

// Texts and logs of values.

namespace {

using Mox::String;

/// A value's log form, which holds every bit of it; of a type without one, its text.
template <class T> String imageOf(T const& value) {
    using Mox::valueToStrep;
    Mox::Ptr<Mox::NboAttrLog::Out> const out = Mox::NboAttrLog::Out::OutIs();
    if constexpr (requires { out << value; }) {
        out << value;
        return out->bytes();
    } else
        return valueToStrep(value);
}

/// The text is refused and the position stays, or what was read of it is by itself the text of the same
/// value, and the value's own text reads back to it.
template <class T> void checkText(String const& text) {
    using Mox::sequenceToValue, Mox::valueToStrep;
    T value{};
    String::IteratorConst position = text.begin();
    try {
        sequenceToValue(position, text.end(), &value);
    } catch (Mox::RangeException const&) {
        MOX_ASSERT(position == text.begin());
        MOX_ASSERT(imageOf(value) == imageOf(T{}));
        return;
    }
    for (String const& again : {String(std::string(text.begin(), position)), valueToStrep(value)}) {
        T read{};
        Mox::strepToValue(again, &read);
        MOX_ASSERT(imageOf(read) == imageOf(value));
    }
}

/// The log is refused, or the value that was read is written as the bytes that were read, and has a text that
/// reads back to a value of the same text. Queue statistics are written in another form than they are read.
template <class T> void checkLog(String const& log) {
    using Mox::valueToStrep;
    Mox::Ptr<Mox::NboAttrLog::In> const in = Mox::NboAttrLog::In::InIs(log);
    T value{}, read{};
    try {
        in->read(&value);
    } catch (Mox::RangeException const&) {
        return;
    }
    MOX_ASSERT((std::is_same_v<T, Kel::TaskSchedulerQueueStats>) ||
               imageOf(value) == log.substr(0, log.size() - in->bytesLeft()));
    Mox::strepToValue(valueToStrep(value), &read);
    MOX_ASSERT(valueToStrep(read) == valueToStrep(value));
}

template <class... T> void checkTexts(String const& text) { (checkText<T>(text), ...); }
template <class... T> void checkBoth(String const& input) {
    ((checkText<T>(input), checkLog<T>(input)), ...);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size) {
    String const input = std::string(data, size);
    checkBoth<Kel::TaskStat, Kel::TaskStat::TaskStatus, Kel::TaskSchedulerPriorityStats,
              Kel::TaskSchedulerQueueStats, Kel::TaskKey, Kel::ProcessId, Kel::TaskPriority, String>(input);
    checkTexts<Kel::TaskPriority::PriorityEnum, bool, Mox::U32, Mox::U64, Mox::S32, Mox::S64, double>(input);
    return 0;
}
