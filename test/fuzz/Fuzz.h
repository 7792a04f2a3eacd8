#pragma once

#include <mox/Assert.h>
#include <mox/NboAttrLog.h>
#include <mox/Strep.h>

#include <cstddef>
#include <cstdint>

/// A fuzz target is a source XFuzz.cpp that defines this. libFuzzer calls it with inputs that it makes up,
/// the tests call it with the files of corpus/XFuzz.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace Fuzz {

inline Mox::String bytes(std::uint8_t const* data, std::size_t size) {
    return std::string(reinterpret_cast<char const*>(data), size);
}

/// A value's log form, which holds every bit of it; of a type without one, its text.
template <class T> Mox::String imageOf(T const& value) {
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
template <class T> void checkText(Mox::String const& text) {
    using Mox::sequenceToValue, Mox::valueToStrep;
    T value{};
    Mox::String::IteratorConst position = text.begin();
    try {
        sequenceToValue(position, text.end(), &value);
    } catch (Mox::RangeException const&) {
        MOX_ASSERT(position == text.begin());
        MOX_ASSERT(imageOf(value) == imageOf(T{}));
        return;
    }
    for (Mox::String const& again : {Mox::String(std::string(text.begin(), position)), valueToStrep(value)}) {
        T read{};
        Mox::strepToValue(again, &read);
        MOX_ASSERT(imageOf(read) == imageOf(value));
    }
}

/// The log is refused, or the value that was read is written as the bytes that were read, and has a text that
/// reads back to a value of the same text.
template <class T> void checkLog(Mox::String const& log) {
    using Mox::valueToStrep;
    Mox::Ptr<Mox::NboAttrLog::In> const in = Mox::NboAttrLog::In::InIs(log);
    T value{}, read{};
    try {
        in->read(&value);
    } catch (Mox::RangeException const&) {
        return;
    }
    MOX_ASSERT(imageOf(value) == log.substr(0, log.size() - in->bytesLeft()));
    Mox::strepToValue(valueToStrep(value), &read);
    MOX_ASSERT(valueToStrep(read) == valueToStrep(value));
}

} // namespace Fuzz
