#pragma once

#include <mox/NboAttrLog.h>
#include <mox/Strep.h>
#include <support/Names.h>

#include <gmock/gmock.h>

namespace TestSupport {

/// The bytes of a value's log form: equal for two values when every bit of their fields is.
template <class T> String logForm(T const& value) {
    Ptr<NboAttrLog::Out> const out = NboAttrLog::Out::OutIs();
    out << value;
    return out->bytes();
}

template <class T> T fromText(String const& text) {
    T value{};
    strepToValue(text, &value);
    return value;
}

template <class T> T fromLog(String const& bytes) {
    T value{};
    NboAttrLog::bytesToValue(bytes, &value);
    return value;
}

/// The value comes back from its text and from its log with every bit.
template <class T> void expectRoundTrip(T const& value) {
    using Mox::valueToStrep;
    String const text = valueToStrep(value), log = logForm(value);
    ASSERT_NO_THROW(ASSERT_EQ(log, logForm(fromText<T>(text)))) << text;
    ASSERT_NO_THROW(ASSERT_EQ(log, logForm(fromLog<T>(log)))) << text;
    ASSERT_EQ(text, valueToStrep(fromText<T>(text)));
}

/// The text is refused with exactly that message, and the position given to the constructor stays.
template <class T> void expectRefused(String const& text, std::string const& message) {
    EXPECT_THAT([&] { fromText<T>(text); }, testing::ThrowsMessage<RangeException>(testing::StrEq(message)))
        << text;
    if (message.starts_with("junk"))
        return;
    String::IteratorConst position = text.begin();
    EXPECT_THROW(T(position, text.end()), RangeException) << text;
    EXPECT_EQ(text.begin(), position) << text;
}

/// Every beginning of the log form is refused, though the rest of it stands behind.
template <class T> void expectCutLogsRefused(T const& value) {
    String const log = logForm(value);
    for (std::size_t length = 0; length < log.size(); ++length)
        EXPECT_THROW(fromLog<T>(log.substr(0, length)), RangeException) << length;
    EXPECT_THROW(fromLog<T>(log + "x"), RangeException);
}

/// Every beginning of a text is refused as a premature end of that type, though the rest of it stands behind.
template <class T>
void expectCutTextsRefused(String const& text, std::size_t from, std::size_t to, std::string const& type) {
    for (std::size_t length = from; length < to; ++length) {
        String::IteratorConst position = text.begin();
        auto const end = text.begin() + static_cast<std::ptrdiff_t>(length);
        EXPECT_THAT([&] { T(position, end); }, testing::ThrowsMessage<RangeException>(
                                                   testing::StrEq("premature end of value type " + type)))
            << length;
        EXPECT_EQ(text.begin(), position) << length;
    }
}

} // namespace TestSupport
