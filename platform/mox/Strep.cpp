#include <mox/Strep.h>

#include <mox/detail/StrepCursor.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#if defined(__i386__)
#include <fpu_control.h>
#endif

namespace Mox {

namespace {

/// Escapes of one letter; `\x` and two digits stand for any byte.
struct Escape {
    char byte;
    char letter;
};
constexpr std::array escapes{Escape{'\\', '\\'}, Escape{'\'', '\''}, Escape{'"', '"'},
                             Escape{'\n', 'n'},  Escape{'\r', 'r'},  Escape{'\t', 't'}};

template <class T> String numberToStrep(T value) {
    std::array<char, 32> text;
    auto const written = std::to_chars(text.data(), text.data() + text.size(), value);
    return std::string_view(text.data(), written.ptr);
}

/// Texts are written in single quotes, so that double ones need no escape, though they are read with one.
void escapeByte(char byte, std::string& text) {
    constexpr char const* digits = "0123456789abcdef";
    for (Escape const& escape : escapes)
        if (escape.byte == byte && byte != '"') {
            text += {'\\', escape.letter};
            return;
        }
    auto const code = static_cast<unsigned char>(byte);
    if (code >= 0x20 && code < 0x7f)
        text += byte;
    else
        text += {'\\', 'x', digits[code >> 4], digits[code & 0xf]};
}

/// The byte that the escape stands for whose letter is the first of the text, which becomes what is left.
char unescapeByte(std::string_view& text) {
    if (text.empty())
        throw PrematureEnd();
    char const letter = text.front();
    text.remove_prefix(1);
    for (Escape const& escape : escapes)
        if (escape.letter == letter)
            return escape.byte;
    if (letter != 'x')
        throw RangeException(std::string("unknown escape in a string: \\") + letter);

    std::string_view const digits = text.substr(0, 2);
    U8 code = 0;
    auto const read = std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
    if (read.ptr != digits.data() + digits.size())
        throw RangeException("expected two hexadecimal digits in a string's escape");
    if (digits.size() < 2)
        throw PrematureEnd();
    text.remove_prefix(2);
    return static_cast<char>(code);
}

/// While it lives, x87 arithmetic rounds to double at once. The standard library of 32-bit systems calculates
/// in x87 registers even when its users do not, and from_chars() then rounds twice and now and then gives a
/// neighbour of the number meant.
class RoundingToDouble {
  public:
#if defined(__i386__)
    RoundingToDouble() {
        _FPU_GETCW(before_);
        fpu_control_t control = (before_ & static_cast<fpu_control_t>(~_FPU_EXTENDED)) | _FPU_DOUBLE;
        _FPU_SETCW(control);
    }
    ~RoundingToDouble() { _FPU_SETCW(before_); }

  private:
    fpu_control_t before_;
#else
    RoundingToDouble() {} // nothing to do elsewhere
#endif
};

/// Whether the number in front goes on behind the end of the text.
bool isCutExponent(std::string_view text) {
    constexpr std::array<std::string_view, 6> cuts{"e", "E", "e-", "E-", "e+", "E+"};
    return std::ranges::find(cuts, text) != cuts.end();
}

/// Reads the decimal number that stands there. Where the text ends within a number, that is told apart from a
/// text that is none, so that a reader of a stream knows that more is to come; digits alone could always go
/// on and are taken as they are.
template <class T> T readDecimal(StrepCursor& cursor) {
    std::string_view const text = cursor.rest();
    RoundingToDouble const rounding;
    T number{};
    auto const read = std::from_chars(text.data(), text.data() + text.size(), number);
    std::ptrdiff_t const length = read.ptr - text.data();
    bool const cut = std::floating_point<T>
                         ? text == "." || isCutExponent(text.substr(static_cast<std::size_t>(length)))
                         : std::signed_integral<T> && text == "-";
    if (cut)
        throw PrematureEnd();
    if (read.ec == std::errc::result_out_of_range)
        throw RangeException("number out of range");
    if (read.ec != std::errc())
        throw RangeException("expected a number");
    cursor.skip(length);
    return number;
}

/// A double without its sign. Words are read here and not by from_chars, which takes more of them than the
/// form has.
double readMagnitude(StrepCursor& cursor) {
    char const first = cursor.rest().front();
    if (first == '.' || (first >= '0' && first <= '9'))
        return readDecimal<double>(cursor);

    String word;
    cursor.expect("float");
    cursor.expect("(");
    cursor.read(&word);
    cursor.expect(")");
    if (word == "inf")
        return std::numeric_limits<double>::infinity();
    if (word == "nan")
        return std::numeric_limits<double>::quiet_NaN();
    throw RangeException("expected float('inf') or float('nan')");
}

} // namespace

String valueToStrep(std::string_view value) {
    std::string text = "'";
    for (char const byte : value)
        escapeByte(byte, text);
    return text + '\'';
}

void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end, double* value) {
    StrepCursor cursor(position, end);
    bool const negative = cursor.accept("-");
    double const magnitude = readMagnitude(cursor);
    *value = negative ? -magnitude : magnitude;
    position = cursor.position();
}

void sequenceToValue(String::IteratorConst& position, String::IteratorConst const& end, String* value) {
    StrepCursor cursor(position, end);
    std::string_view text = cursor.rest();
    std::size_t const length = text.size();
    char const quote = text.front();
    if (quote != '\'' && quote != '"')
        throw RangeException("expected a quoted string");
    text.remove_prefix(1);

    std::string bytes;
    for (;;) {
        if (text.empty())
            throw PrematureEnd();
        char const byte = text.front();
        text.remove_prefix(1);
        if (byte == quote)
            break;
        bytes += byte == '\\' ? unescapeByte(text) : byte;
    }
    *value = std::move(bytes);
    cursor.skip(static_cast<std::ptrdiff_t>(length - text.size()));
    position = cursor.position();
}

namespace StrepImplementation {

String booleanToStrep(bool value) { return value ? "True" : "False"; }
String unsignedToStrep(U64 value) { return numberToStrep(value); }
String signedToStrep(S64 value) { return numberToStrep(value); }

String doubleToStrep(double value) {
    char const* const sign = std::signbit(value) ? "-" : "";
    if (std::isinf(value))
        return std::string(sign) + "float('inf')";
    if (std::isnan(value))
        return std::string(sign) + "float('nan')";
    if (value == 0.0 && std::signbit(value))
        return "-0.0";
    return numberToStrep(value);
}

bool readBoolean(String::IteratorConst& position, String::IteratorConst const& end) {
    StrepCursor cursor(position, end);
    bool const value = cursor.accept("True");
    if (!value && !cursor.accept("False"))
        throw RangeException("expected True or False");
    position = cursor.position();
    return value;
}

U64 readUnsigned(String::IteratorConst& position, String::IteratorConst const& end, U64 greatest) {
    StrepCursor cursor(position, end);
    U64 const number = readDecimal<U64>(cursor);
    if (number > greatest)
        throw RangeException("number above " + numberToStrep(greatest));
    position = cursor.position();
    return number;
}

S64 readSigned(String::IteratorConst& position, String::IteratorConst const& end, S64 least, S64 greatest) {
    StrepCursor cursor(position, end);
    S64 const number = readDecimal<S64>(cursor);
    if (number < least || number > greatest)
        throw RangeException("number not within " + numberToStrep(least) + " and " + numberToStrep(greatest));
    position = cursor.position();
    return number;
}

void throwJunk(std::ptrdiff_t column, std::string const& typeName) {
    throw RangeException("junk at column " + std::to_string(column) + " deserializing " + typeName);
}

} // namespace StrepImplementation

} // namespace Mox
