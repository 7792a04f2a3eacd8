#include <mox/Strep.h>

#include <support/Random.h>

#include <gmock/gmock.h>

#include <bit>
#include <cmath>

namespace {

using Mox::sequenceToValue;
using Mox::strepToValue;
using Mox::valueToStrep;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr double infinity = std::numeric_limits<double>::infinity();

Mox::U64 bitsOf(double const& value) { return std::bit_cast<Mox::U64>(value); }

/// Writes the value to the letter and reads the text back.
template <class T> void expectText(char const* text, T const& value) {
    EXPECT_EQ(text, valueToStrep(value));
    T read{};
    strepToValue(text, &read);
    EXPECT_EQ(value, read) << text;
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

TEST(Strep, EveryBitOfDoublesSurvives) {
    TestSupport::Random random;
    for (std::size_t i = 0; i < TestSupport::operations(500'000); ++i) {
        Mox::U64 bits = random.word();
        if (random.oneIn(4))
            bits &= 0x800fffffffffffff; // denormal
        else if (random.oneIn(2))
            bits = (bits & 0x800fffffffffffff) | Mox::U64{990 + random.below(100)} << 52; // as times are
        double const value = std::bit_cast<double>(bits);
        double read = 0.0;
        strepToValue(valueToStrep(value), &read);
        if (std::isnan(value)) {
            ASSERT_TRUE(std::isnan(read)) << std::hex << bits;
            ASSERT_EQ(std::signbit(value), std::signbit(read)) << std::hex << bits;
        } else
            ASSERT_EQ(bits, bitsOf(read)) << valueToStrep(value);
    }
    double zero = 1.0;
    strepToValue("-0", &zero);
    EXPECT_EQ(bitsOf(-0.0), bitsOf(zero));
}

TEST(Strep, EveryByteOfStringsSurvivesAsPrintableAscii) {
    for (int first = 0; first < 256; ++first)
        for (int second = 0; second < 256; ++second) {
            Mox::String const bytes = std::string{static_cast<char>(first), static_cast<char>(second)};
            Mox::String const text = valueToStrep(bytes);
            for (char const c : text)
                ASSERT_TRUE(c >= ' ' && c <= '~') << first << ' ' << second;
            Mox::String read;
            strepToValue(text, &read);
            ASSERT_EQ(bytes, read) << text;
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
    expectRead<double>({{"7", 7},
                        {".5", .5},
                        {"5.", 5},
                        {"1E3", 1000},
                        {"- 2.5", -2.5},
                        {" - \nfloat ( \"inf\" )", -infinity}});
    expectRead<Mox::String>({{"\"it's\"", "it's"},
                             {"'\\\"'", "\""},
                             {"'\n\xc3\xa9'", "\n\xc3\xa9"},
                             {"'\\xC3\\xa9'", "\xc3\xa9"},
                             {" 'a'", "a"}});
}

struct Refusal {
    char const* text;
    char const* message;
};

/// Each text is refused with its message, and neither position nor value has changed.
template <class T> void expectRefused(T const& before, std::initializer_list<Refusal> cases) {
    for (Refusal const& c : cases) {
        T value = before;
        EXPECT_THAT([&] { strepToValue(c.text, &value); },
                    ThrowsMessage<Mox::RangeException>(HasSubstr(c.message)))
            << c.text;
        EXPECT_EQ(before, value) << c.text;
        if (std::string_view(c.message).starts_with("junk"))
            continue;
        Mox::String const text = c.text;
        Mox::String::IteratorConst position = text.begin();
        EXPECT_THROW(sequenceToValue(position, text.end(), &value), Mox::RangeException) << text;
        EXPECT_EQ(text.begin(), position) << text;
        EXPECT_EQ(before, value) << text;
    }
}

TEST(Strep, RefusesWhatIsNoValueAndChangesNothing) {
    expectRefused(true, {{"", "premature end"},
                         {"Tru", "premature end"},
                         {"F", "premature end"},
                         {"true", "expected True or False"},
                         {"1", "expected True or False"},
                         {"Truely", "junk at column 4 deserializing bool"}});
    expectRefused<Mox::U32>(3, {{"", "premature end"},
                                {" ", "premature end"},
                                {"-1", "expected a number"},
                                {"x", "expected a number"},
                                {"+1", "expected a number"},
                                {"4294967296", "number above 4294967295"},
                                {"18446744073709551616", "out of range"},
                                {"12 ", "junk at column 2 deserializing Mox::U32"},
                                {"1.5", "junk at column 1 deserializing Mox::U32"},
                                {"0x10", "junk at column 1 deserializing Mox::U32"}});
    expectRefused<Mox::U64>(3, {{"18446744073709551616", "out of range"},
                                {"-", "expected a number"},
                                {"7u", "junk at column 1 deserializing Mox::U64"}});
    expectRefused<Mox::S32>(3, {{"-", "premature end"},
                                {"- 1", "expected a number"},
                                {"2147483648", "not within -2147483648 and 2147483647"},
                                {"-2147483649", "not within"}});
    expectRefused(3.0, {{"", "premature end"},
                        {"-", "premature end"},
                        {".", "premature end"},
                        {"1e", "premature end"},
                        {"1E+", "premature end"},
                        {"-1.5e-", "premature end"},
                        {"inf", "expected float"},
                        {"nan", "expected float"},
                        {"--1", "expected float"},
                        {"float('in", "premature end"},
                        {"float('inf'", "premature end"},
                        {"float('one')", "expected float('inf') or float('nan')"},
                        {"float(1)", "quoted string"},
                        {"1e400", "out of range"},
                        {"1e-400", "out of range"},
                        {"1ex", "junk at column 1 deserializing double"}});
    expectRefused<Mox::String>("before", {{"", "premature end"},
                                          {"'a", "premature end"},
                                          {"'\\", "premature end"},
                                          {"'\\x", "premature end"},
                                          {"'\\xa", "premature end"},
                                          {"'\\xag'", "hexadecimal"},
                                          {"'\\x-1'", "hexadecimal"},
                                          {"'\\q'", "unknown escape"},
                                          {"a", "expected a quoted string"},
                                          {"'a'b", "junk at column 3 deserializing Mox::String"}});
}

// What stands behind the end given is not looked at, though it would complete the value.
TEST(Strep, ReadsNothingBehindTheEnd) {
    struct Case {
        char const* text;
        void (*read)(Mox::String::IteratorConst&, Mox::String::IteratorConst const&);
    } const cases[] = {
        {"'\\x41\\n'",
         [](auto& at, auto const& end) {
             Mox::String v;
             sequenceToValue(at, end, &v);
         }},
        {"-float('inf')",
         [](auto& at, auto const& end) {
             double v;
             sequenceToValue(at, end, &v);
         }},
        {"False",
         [](auto& at, auto const& end) {
             bool v;
             sequenceToValue(at, end, &v);
         }},
    };
    for (auto const& [text, read] : cases) {
        Mox::String const whole = text;
        for (auto end = whole.begin(); end != whole.end(); ++end) {
            auto position = whole.begin();
            EXPECT_THROW(read(position, end), Mox::PrematureEnd) << text << ' ' << end - whole.begin();
        }
    }
    Mox::String const digits = "123456";
    auto position = digits.begin();
    double value = 0.0;
    sequenceToValue(position, digits.begin() + 3, &value);
    EXPECT_EQ(123.0, value);
    EXPECT_EQ(digits.begin() + 3, position);
}

} // namespace
