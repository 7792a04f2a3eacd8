#pragma once

#include <mox/Ptr.h>
#include <mox/SteadyClock.h>
#include <mox/Subject.h>

namespace Mox {

/// An entity as attributes show it: its type's name, "@" and its address, quoted; None for null. The text
/// tells entities apart, it leads to none.
MOX_EXPORT String referenceToStrep(PtrInterface const* entity);

/// How attributes of a type V are shown and read: by its text form, unless specialised below.
template <class V> struct AttributeText {
    static std::string type() { return typeNameOf<V>(); }
    static String write(V const& value) {
        using Mox::valueToStrep;
        return valueToStrep(value);
    }
    /// Throws a RangeException for a text that is no V.
    static V read(String const& text) {
        V value{};
        strepToValue(text, &value);
        return value;
    }
};

/// Times of the steady clock: whole nanoseconds.
template <> struct AttributeText<Nanoseconds> {
    static std::string type() { return "Mox::Nanoseconds"; }
    static String write(Nanoseconds value) { return valueToStrep(S64{value.count()}); }
    static Nanoseconds read(String const& text) { return Nanoseconds(AttributeText<S64>::read(text)); }
};
template <> struct AttributeText<SteadyClock::TimePoint> {
    static std::string type() { return "Mox::SteadyClock::TimePoint"; }
    static String write(SteadyClock::TimePoint value) {
        return AttributeText<Nanoseconds>::write(value.time_since_epoch());
    }
    static SteadyClock::TimePoint read(String const& text) {
        return SteadyClock::TimePoint(AttributeText<Nanoseconds>::read(text));
    }
};

/// References can be shown only.
template <Entity E> struct AttributeText<E*> {
    static std::string type() { return std::string(std::remove_const_t<E>::type().name()); }
    static String write(E const* entity) { return referenceToStrep(entity); }
};
template <Entity E> struct AttributeText<Ptr<E>> : AttributeText<E*> {
    static String write(Ptr<E> const& entity) { return referenceToStrep(entity.ptr()); }
};

} // namespace Mox
