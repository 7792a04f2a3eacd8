#pragma once

#include <mox/Ptr.h>
#include <mox/Subject.h>
#include <mox/ThreadId.h>

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

/// A thread can be shown only.
template <> struct AttributeText<ThreadId> {
    static std::string type() { return typeNameOf<ThreadId>(); }
    static String write(ThreadId const& thread) { return valueToStrep(U64{thread.handle()}); }
};

/// References can be shown only.
template <Entity E> struct AttributeText<E*> {
    static std::string type() { return std::string(std::remove_const_t<E>::type().name()); }
    static String write(E const* entity) { return referenceToStrep(entity); }
};
/// As the plain pointer.
template <Entity E> struct AttributeText<Ptr<E>> : AttributeText<E*> {
    static String write(Ptr<E> const& entity) { return referenceToStrep(entity.ptr()); }
};

} // namespace Mox
