#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/NboAttrLogForward.h>
#include <mox/Strep.h>

#include <unistd.h>

#include <compare>

namespace Kel {

/// A process number, sign-extended to 64 bits.
class MOX_EXPORT ProcessId {
  public:
    constexpr ProcessId() = default;
    constexpr explicit ProcessId(Mox::S64 value) : value_(value) {}

    /// Reads a decimal number, as valueToStrep() writes it. Throws Mox::RangeException, with `position` where
    /// it was, when none stands there.
    ProcessId(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);
    /// Reads the log form: u64.
    template <Mox::NboAttrLog::AnyIn In> explicit ProcessId(In* in) { in->read(&value_); }

    static ProcessId current() { return ProcessId(getpid()); }

    constexpr Mox::S64 value() const { return value_; }
    constexpr Mox::U32 hash() const { return static_cast<Mox::U32>(value_); }
    bool isCurrent() const { return *this == current(); }

    friend constexpr auto operator<=>(ProcessId const& a, ProcessId const& b) = default;

    friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
    operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, ProcessId const& id);

  private:
    Mox::S64 value_ = 0;
};

/// The number's 64 bits as an unsigned number, decimal.
MOX_EXPORT Mox::String valueToStrep(ProcessId const& id);

} // namespace Kel

namespace Mox {
using Kel::valueToStrep;
}
