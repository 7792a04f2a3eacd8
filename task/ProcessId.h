#pragma once

#include <mox/Integers.h>

#include <unistd.h>

#include <compare>

namespace Kel {

/// A process number, sign-extended to 64 bits.
class ProcessId {
  public:
    constexpr ProcessId() = default;
    constexpr explicit ProcessId(Mox::S64 value) : value_(value) {}

    static ProcessId current() { return ProcessId(getpid()); }

    constexpr Mox::S64 value() const { return value_; }
    bool isCurrent() const { return *this == current(); }

    friend constexpr auto operator<=>(ProcessId const& a, ProcessId const& b) = default;

  private:
    Mox::S64 value_ = 0;
};

} // namespace Kel
