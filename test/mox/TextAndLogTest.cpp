#include <mox/Strep.h>

#include <mox/Integers.h>
#include <mox/NboAttrLog.h>

#include <support/Random.h>

#include <gmock/gmock.h>

#include <cctype>
#include <cmath>
#include <cstring>

namespace {

using Mox::sequenceToValue;
using Mox::strepToValue;
using Mox::valueToStrep;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr double infinity = std::numeric_limits<double>::infinity();

/// Writes the value to the letter and reads the text back; a text whose end shows is refused when it is cut,
/// though the rest of it stands behind.
template <class T> void expectText(Mox::String const& text, T const& value) {
    EXPECT_EQ(text, valueToStrep(value));
    T read{};
    strepToValue(text, &read);
    EXPECT_EQ(value, read) << text;
    for (auto end = text.begin(); !std::isdigit(text.back()) && end != text.end(); ++end) {
        auto position = text.begin();
        EXPECT_THROW(sequenceToValue(position, end, &read), Mox::PrematureEnd) << text << end - text.begin();
    }
}

TEST(Strep, WritesToTheLetterAndReadsBack) {
    expectText("True", true);
    expectText("False", false);
    expectText("4294967295", ~Mox::U32{0});
    expectText("18446744073709551615", ~Mox::U64{0});
    expectText("-2147483648", std::numeric_limits<Mox::S32>::min());
    expectText("-9223372036854775808", std::numeric_limits<Mox::S64>::min());
    expectText("0", 0.0);
    expectText("-0.0", -0.0);
    expectText("0.02", 0.02);
    expectText("20", 20.0);
    expectText("-1e+300", -1e300);
    expectText("5e-324", 5e-324);
    expectText("4.473778468205651e+36", 4.473778468205651e36); // rounded twice, its last bit is wrong
    expectText("1.7976931348623157e+308", std::numeric_limits<double>::max());
    expectText("float('inf')", infinity);
    expectText("-float('inf')", -infinity);
    expectText("''", Mox::String());
    expectText("'it\\'s \"a\\\\b\"\\n\\r\\t'", Mox::String("it's \"a\\b\"\n\r\t"));
    expectText("'\\x00\\x1f ~\\x7f\\x80\\xff'", Mox::String(std::string_view("\0\x1f ~\x7f\x80\xff", 7)));
    EXPECT_EQ("'true'", valueToStrep("true")); // a literal is a string, not a truth value
}

// Signalling NaNs in the log included, which a detour over an x87 register would change.
TEST(Strep, EveryBitOfDoublesSurvivesInTextAndLog) {
    TestSupport::Random random;
    for (std::size_t i = 0; i < TestSupport::operations(500'000); ++i) {
        Mox::U64 bits = random.word();
        if (random.oneIn(4))
            bits &= 0x800fffffffffffff; // denormal
        else if (random.oneIn(4))
            bits |= 0x7ff0000000000000; // a NaN
        else if (random.oneIn(2))
            bits = (bits & 0x800fffffffffffff) | Mox::U64{990 + random.below(100)} << 52; // as times are
        double value = 0.0, read = 0.0;
        std::memcpy(&value, &bits, sizeof value);
        Mox::Ptr<Mox::NboAttrLog::Out> const log = Mox::NboAttrLog::Out::OutIs();
        log << value;
        Mox::NboAttrLog::bytesToValue(log->bytes(), &read);
        ASSERT_EQ(0, std::memcmp(&read, &bits, sizeof read)) << std::hex << bits;
        strepToValue(valueToStrep(value), &read);
        if (std::isnan(value))
            ASSERT_TRUE(std::isnan(read) && std::signbit(value) == std::signbit(read)) << std::hex << bits;
        else
            ASSERT_EQ(0, std::memcmp(&read, &bits, sizeof read)) << valueToStrep(value);
    }
}

template <class T> void expectRead(std::initializer_list<std::pair<char const*, T>> cases) {
    for (auto const& [text, value] : cases) {
        T read{};
        ASSERT_NO_THROW(strepToValue(text, &read)) << text;
        EXPECT_EQ(value, read) << text;
    }
}

TEST(Strep, ReadsMoreThanItWrites) {
    expectRead<Mox::U32>({{"007", 7}, {" \t\r\n\f7", 7}});
    expectRead<double>(
        {{"7", 7}, {".5", .5}, {"5.", 5}, {"1E3", 1000}, {" - \nfloat ( \"inf\" )", -infinity}});
    expectRead<Mox::String>(
        {{"\"it's\"", "it's"}, {"'\\\"\n\xc3\xa9'", "\"\n\xc3\xa9"}, {" '\\xC3'", "\xc3"}});
    Mox::String const digits = "123456"; // and nothing behind the end given
    auto position = digits.begin();
    double value = 0.0;
    sequenceToValue(position, digits.begin() + 3, &value);
    EXPECT_EQ(123.0, value);
    EXPECT_EQ(digits.begin() + 3, position);
}

struct Refusal {
    char const* text;
    char const* message;
};

/// Each text is refused with its message, and the value has not changed.
template <class T> void expectRefused(T const& before, std::initializer_list<Refusal> cases) {
    for (auto const& [text, message] : cases) {
        T value = before;
        auto const read = [&value, &text = text] { strepToValue(text, &value); };
        EXPECT_THAT(read, ThrowsMessage<Mox::RangeException>(HasSubstr(message))) << text;
        EXPECT_EQ(before, value) << text;
    }
}

TEST(Strep, RefusesWhatIsNoValueAndChangesNothing) {
    expectRefused(true, {{"", "premature end"},
                         {"true", "expected True or False"},
                         {"Truely", "junk at column 4 deserializing bool"}});
    expectRefused<Mox::U32>(3, {{" ", "premature end"},
                                {"-1", "expected a number"},
                                {"+1", "expected a number"},
                                {"4294967296", "number above 4294967295"},
                                {"18446744073709551616", "out of range"},
                                {"12 ", "junk at column 2 deserializing Mox::U32"},
                                {"0x10", "junk at column 1 deserializing Mox::U32"}});
    expectRefused<Mox::S32>(3, {{"-", "premature end"},
                                {"- 1", "expected a number"},
                                {"2147483648", "not within -2147483648 and 2147483647"},
                                {"-2147483649", "not within"}});
    expectRefused(3.0, {{"-", "premature end"},
                        {".", "premature end"},
                        {"1e", "premature end"},
                        {"-1.5E-", "premature end"},
                        {"inf", "expected float"},
                        {"--1", "expected float"},
                        {"float('one')", "expected float('inf') or float('nan')"},
                        {"float(1)", "quoted string"},
                        {"1e400", "out of range"},
                        {"1e-400", "out of range"},
                        {"1ex", "junk at column 1 deserializing double"}});
    expectRefused<Mox::String>("before", {{"'\\xag'", "hexadecimal"},
                                          {"'\\x-1'", "hexadecimal"},
                                          {"'\\q'", "unknown escape"},
                                          {"a", "expected a quoted string"},
                                          {"'a'b", "junk at column 3 deserializing Mox::String"}});
}

TEST(NboAttrLog, ShortAndOverlongInputIsRefusedAndChangesNothing) {
    Mox::Ptr<Mox::NboAttrLog::In> const in = Mox::NboAttrLog::In::InIs(std::string("\0\0\0\3ab", 6));
    Mox::String text = "before";
    Mox::U64 number = 5;
    EXPECT_THAT([&] { in->read(&text); }, ThrowsMessage<Mox::RangeException>(HasSubstr("premature end")));
    EXPECT_THROW(in->read(&number), Mox::RangeException);
    EXPECT_THAT([&] { Mox::NboAttrLog::bytesToValue(std::string("\0\0\0\0x", 5), &text); },
                ThrowsMessage<Mox::RangeException>(HasSubstr("left over in the attribute log: 1")));
    EXPECT_EQ("before", text);
    EXPECT_EQ(5u, number);
    EXPECT_EQ(6u, in->bytesLeft()) << "something was lost by a failure";
}

} // namespace
