#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/String.h>

#include <compare>

namespace Kel {

class Task;

/// A task's identity while it lives: its address as a number. Kept by registries and reports, never
/// dereferenced.
class MOX_EXPORT TaskKey {
  public:
    constexpr TaskKey() = default;
    constexpr explicit TaskKey(Mox::U64 value) : value_(value) {}
    /// Reads "@0x..." (as toStrep() writes it) or a decimal number, and moves `position` behind it. Throws
    /// Mox::RangeException, with `position` where it was, when neither stands there.
    TaskKey(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);

    static TaskKey create(Task const* task) { return TaskKey(reinterpret_cast<std::uintptr_t>(task)); }
    /// The key with every bit set, which no task has.
    static constexpr TaskKey none() { return TaskKey(~Mox::U64{0}); }

    constexpr Mox::U64 value() const { return value_; }
    constexpr Mox::U32 hash() const { return static_cast<Mox::U32>(value_); }

    /// "@" and the address in pointer display form.
    Mox::String8 toStrep() const;

    friend constexpr auto operator<=>(TaskKey const& a, TaskKey const& b) = default;

  private:
    Mox::U64 value_ = 0;
};

} // namespace Kel
