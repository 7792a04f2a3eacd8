#include <mox/Strep.h>

#include <mox/Integers.h>
#include <mox/NboAttrLog.h>

#include <support/Random.h>

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cctype>
#include <cmath>
#include <initializer_list>
#include <limits>

namespace {

using Mox::strepToValue;
using Mox::valueToStrep;

/// Writes the value to the letter and reads the text back; a text whose end shows is refused when it is cut,
/// though the rest of it stands behind.
template <class T> void expectText(Mox::String const& text, T const& value) {
    EXPECT_EQ(text, valueToStrep(value));
    T read{};
    strepToValue(text, &read);
    EXPECT_EQ(value, read) << text;
    for (auto end = text.begin(); !std::isdigit(text.back()) && end != text.end(); ++end) {
        auto position = text.begin();
        EXPECT_THROW(Mox::sequenceToValue(position, end, &read), Mox::PrematureEnd)
            << text << end - text.begin();
    }
}

TEST(Strep, WritesToTheLetterAndReadsBack) {
    expectText("True", true);
    expectText("18446744073709551615", ~Mox::U64{0});
    expectText("-2147483648", std::numeric_limits<Mox::S32>::min());
    expectText("-0.0", -0.0);
    expectText("4.473778468205651e+36", 4.473778468205651e36); // rounded twice, its last bit is wrong
    expectText("-float('inf')", -std::numeric_limits<double>::infinity());
    expectText("''", Mox::String());
    expectText("'it\\'s \"a\\\\b\"\\n\\r\\t'", Mox::String("it's \"a\\b\"\n\r\t"));
    expectText("'\\x00\\x1f ~\\x7f\\x80\\xff'", Mox::String(std::string_view("\0\x1f ~\x7f\x80\xff", 7)));
}

// Signalling NaNs in the log included, which a detour over an x87 register would change.
TEST(Strep, EveryBitOfDoublesSurvivesInTextAndLog) {
    TestSupport::Random random;
    for (std::size_t i = 0; i < TestSupport::operations(500'000); ++i) {
        // Denormal, a NaN, as times are, and any.
        std::array<Mox::U64, 4> const exponents{0, 0x7ff, 990 + random.below(100), random.below(0x800)};
        Mox::U64 const bits = (random.word() & 0x800fffffffffffff) | random.of(exponents) << 52;
        double const value = std::bit_cast<double>(bits);
        double read = 0.0;
        Mox::Ptr<Mox::NboAttrLog::Out> const log = Mox::NboAttrLog::Out::OutIs();
        log << value;
        Mox::NboAttrLog::bytesToValue(log->bytes(), &read);
        ASSERT_EQ(bits, std::bit_cast<Mox::U64>(read));
        strepToValue(valueToStrep(value), &read);
        ASSERT_TRUE(std::isnan(value) ? std::isnan(read) : bits == std::bit_cast<Mox::U64>(read)) << value;
        ASSERT_EQ(std::signbit(value), std::signbit(read)) << value;
    }
}

TEST(Strep, ReadsMoreThanItWrites) {
    auto const expectRead = []<class T>(T const& value, std::initializer_list<char const*> texts) {
        for (char const* const text : texts) {
            T read{};
            ASSERT_NO_THROW(strepToValue(text, &read)) << text;
            EXPECT_EQ(value, read) << text;
        }
    };
    expectRead(Mox::U32{7}, {"007", " \t\r\n\f7"});
    expectRead(5.0, {"5", "5.", ".5e1", "0.5E+1"});
    expectRead(-std::numeric_limits<double>::infinity(), {" - \nfloat ( \"inf\" )"});
    expectRead(Mox::String("it's\n\xc3"), {"\"it's\n\xc3\"", " '\\x69t\\'s\n\\xC3'"});
}

TEST(Strep, RefusesWhatIsNoValueAndChangesNothing) {
    auto const expectRefused = []<class T>(T const& before, std::initializer_list<char const*> texts) {
        for (char const* const text : texts) {
            T value = before;
            EXPECT_THROW(strepToValue(text, &value), Mox::RangeException) << text;
            EXPECT_EQ(before, value) << text;
        }
    };
    expectRefused(true, {"", "true", "Truely"});
    expectRefused(Mox::U32{3}, {" ", "-1", "+1", "4294967296", "18446744073709551616", "12 ", "0x10"});
    expectRefused(Mox::S32{3}, {"-", "- 1", "2147483648", "-2147483649"});
    expectRefused(
        3.0, {"-", ".", "1e", "-1.5E-", "inf", "--1", "float('one')", "float(1)", "1e400", "1e-400", "1ex"});
    expectRefused(Mox::String("before"), {"'\\xag'", "'\\x-1'", "'\\q'", "a", "'a'b"});
    auto const log = Mox::NboAttrLog::In::InIs(std::string("\0\0\0\3ab", 6));
    Mox::String cut;
    EXPECT_THROW(log->read(&cut), Mox::RangeException);
    EXPECT_EQ(6u, log->bytesLeft());
}

} // namespace
