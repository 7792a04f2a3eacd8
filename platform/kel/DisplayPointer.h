#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/String.h>

#include <iosfwd>

namespace Kel {

/// A pointer as operators read it: "0x" and lower-case hexadecimal without leading zeros.
class MOX_EXPORT DisplayPointer {
  public:
    explicit DisplayPointer(void const* pointer) : address_(reinterpret_cast<std::uintptr_t>(pointer)) {}
    explicit DisplayPointer(Mox::U64 address) : address_(address) {}
    /// Reads the form back and moves `position` behind it. Throws Mox::RangeException, with `position` where
    /// it was, when no pointer stands there.
    DisplayPointer(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);

    Mox::U64 address() const { return address_; }
    Mox::String toStrep() const;

    friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, DisplayPointer pointer);

  private:
    Mox::U64 address_;
};

} // namespace Kel
