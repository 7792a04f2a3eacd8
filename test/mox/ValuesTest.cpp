#include <mox/Strep.h>

#include <mox/Integers.h>
#include <mox/NboAttrLog.h>
#include <mox/Seconds.h>

#include <support/Names.h>
#include <support/Random.h>

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cctype>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <utility>

namespace {

using namespace TestSupport;

/// Writes the value to the letter and reads the text back; a text whose end shows is refused when it is cut,
/// though the rest of it stands behind.
template <class T> void expectText(String const& text, T const& value) {
    EXPECT_EQ(text, valueToStrep(value));
    T read{};
    strepToValue(text, &read);
    EXPECT_EQ(value, read) << text;
    for (auto end = text.begin(); !std::isdigit(text.back()) && end != text.end(); ++end) {
        auto position = text.begin();
        EXPECT_THROW(sequenceToValue(position, end, &read), PrematureEnd) << text << end - text.begin();
    }
}

TEST(Strep, WritesToTheLetterAndReadsBack) {
    expectText("True", true);
    expectText("18446744073709551615", ~U64{0});
    expectText("-2147483648", std::numeric_limits<S32>::min());
    expectText("-0.0", -0.0);
    expectText("4.473778468205651e+36", 4.473778468205651e36); // rounded twice, its last bit is wrong
    expectText("-float('inf')", -std::numeric_limits<double>::infinity());
    expectText("''", String());
    expectText("'it\\'s \"a\\\\b\"\\n\\r\\t'", String("it's \"a\\b\"\n\r\t"));
    expectText("'\\x00\\x1f ~\\x7f\\x80\\xff'", String(std::string_view("\0\x1f ~\x7f\x80\xff", 7)));
}

// Signalling NaNs in the log included, which a detour over an x87 register would change.
TEST(Strep, EveryBitOfDoublesSurvivesInTextAndLog) {
    Random random;
    for (std::size_t i = 0; i < operations(500'000); ++i) {
        // Denormal, a NaN, as times are, and any.
        std::array<U64, 4> const exponents{0, 0x7ff, 990 + random.below(100), random.below(0x800)};
        U64 const bits = (random.word() & 0x800fffffffffffff) | random.of(exponents) << 52;
        double const value = std::bit_cast<double>(bits);
        double read = 0.0;
        Ptr<NboAttrLog::Out> const log = NboAttrLog::Out::OutIs();
        log << value;
        NboAttrLog::bytesToValue(log->bytes(), &read);
        ASSERT_EQ(bits, std::bit_cast<U64>(read));
        strepToValue(valueToStrep(value), &read);
        ASSERT_TRUE(std::isnan(value) ? std::isnan(read) : bits == std::bit_cast<U64>(read)) << value;
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
    expectRead(U32{7}, {"007", " \t\r\n\f7"});
    expectRead(5.0, {"5", "5.", ".5e1", "0.5E+1"});
    expectRead(-std::numeric_limits<double>::infinity(), {" - \nfloat ( \"inf\" )"});
    expectRead(String("it's\n\xc3"), {"\"it's\n\xc3\"", " '\\x69t\\'s\n\\xC3'"});
}

TEST(Strep, RefusesWhatIsNoValueAndChangesNothing) {
    auto const expectRefused = []<class T>(T const& before, std::initializer_list<char const*> texts) {
        for (char const* const text : texts) {
            T value = before;
            EXPECT_THROW(strepToValue(text, &value), RangeException) << text;
            EXPECT_EQ(before, value) << text;
        }
    };
    expectRefused(true, {"", "true", "Truely"});
    expectRefused(U32{3}, {" ", "-1", "+1", "4294967296", "18446744073709551616", "12 ", "0x10"});
    expectRefused(S32{3}, {"-", "- 1", "2147483648", "-2147483649"});
    expectRefused(
        3.0, {"-", ".", "1e", "-1.5E-", "inf", "--1", "float('one')", "float(1)", "1e400", "1e-400", "1ex"});
    expectRefused(String("before"), {"'\\xag'", "'\\x-1'", "'\\q'", "a", "'a'b"});
    auto const log = NboAttrLog::In::InIs(std::string("\0\0\0\3ab", 6));
    String cut;
    EXPECT_THROW(log->read(&cut), RangeException);
    EXPECT_EQ(6u, log->bytesLeft());
}

// The same on 32 and 64 bits: 0.29 × 1e9 is just below a whole number, which a wider register would keep.
TEST(ToNanosecondsDeathTest, TruncatesAndSaturatesAndTakesNoNaN) {
    constexpr S64 most = std::numeric_limits<S64>::max();
    std::pair<Seconds, S64> const cases[] = {
        {0.29, 290'000'000},          {-1.9e-9, -1},
        {-endOfTime, -most - 1},      {std::nextafter(9223372036.854775808, 0.0), 9223372036854774784},
        {9223372036.854775808, most},
    };
    for (auto const& [seconds, nanoseconds] : cases)
        EXPECT_EQ(nanoseconds, toNanoseconds(seconds).count()) << seconds;
    EXPECT_DEATH(toNanoseconds(std::nan("")), "!std::isnan\\( seconds \\), source Seconds");
}

} // namespace
