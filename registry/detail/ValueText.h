#pragma once

#include <mox/AttributeText.h>
#include <scheduler/TaskSchedulerHistory.h>
#include <task/TaskTime.h>

namespace Mox {

// How attributes show values that have no text form of their own.

/// Whole nanoseconds.
template <> struct AttributeText<Kel::TaskTimeDuration> {
    static std::string type() { return typeNameOf<Kel::TaskTimeDuration>(); }
    static String write(Kel::TaskTimeDuration const& duration) { return valueToStrep(S64{duration.count()}); }
    static Kel::TaskTimeDuration read(String const& text) {
        return Kel::TaskTimeDuration(AttributeText<S64>::read(text));
    }
};
/// Whole nanoseconds since the clock's epoch.
template <> struct AttributeText<Kel::TaskTimeStamp> {
    static std::string type() { return typeNameOf<Kel::TaskTimeStamp>(); }
    static String write(Kel::TaskTimeStamp const& stamp) {
        return AttributeText<Kel::TaskTimeDuration>::write(stamp.time_since_epoch());
    }
    static Kel::TaskTimeStamp read(String const& text) {
        return Kel::TaskTimeStamp(AttributeText<Kel::TaskTimeDuration>::read(text));
    }
};

/// The number.
template <> struct AttributeText<Kel::TaskSchedulerEventType> {
    static std::string type() { return typeNameOf<Kel::TaskSchedulerEventType>(); }
    static String write(Kel::TaskSchedulerEventType eventType) {
        return valueToStrep(static_cast<U8>(eventType));
    }
};

} // namespace Mox
