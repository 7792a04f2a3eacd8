#include <kel/DisplayPointer.h>

#include <mox/Exception.h>

#include <array>
#include <charconv>
#include <ostream>

namespace Kel {

/// The position moves only once all is read. A sign is refused with everything else that is no digit, since
/// the number is read as an unsigned one.
DisplayPointer::DisplayPointer(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end) {
    std::string_view const text(position, end);
    Mox::U64 address = 0;
    auto const read = text.starts_with("0x")
                          ? std::from_chars(text.data() + 2, text.data() + text.size(), address, 16)
                          : std::from_chars_result{nullptr, std::errc::invalid_argument};
    if (read.ec != std::errc())
        throw Mox::RangeException("not a pointer: a pointer is 0x and hexadecimal digits");
    address_ = address;
    position += read.ptr - text.data();
}

Mox::String DisplayPointer::toStrep() const {
    std::array<char, 16> digits;
    auto const written = std::to_chars(digits.data(), digits.data() + digits.size(), address_, 16);
    return "0x" + std::string(digits.data(), written.ptr);
}

std::ostream& operator<<(std::ostream& stream, DisplayPointer pointer) { return stream << pointer.toStrep(); }

} // namespace Kel
