#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/NboAttrLogForward.h>
#include <mox/Strep.h>

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
    /// Reads the log form: u64.
    template <Mox::NboAttrLog::AnyIn In> explicit TaskKey(In* in) { in->read(&value_); }

    static TaskKey create(Task const* task) { return TaskKey(reinterpret_cast<std::uintptr_t>(task)); }
    /// The key with every bit set, which no task has.
    static constexpr TaskKey none() { return TaskKey(~Mox::U64{0}); }

    constexpr Mox::U64 value() const { return value_; }
    constexpr Mox::U32 hash() const { return static_cast<Mox::U32>(value_); }

    /// For display: "@" and the address in pointer form.
    Mox::String8 toStrep() const;

    friend constexpr auto operator<=>(TaskKey const& a, TaskKey const& b) = default;

    friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
    operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, TaskKey const& key);

  private:
    Mox::U64 value_ = 0;
};

/// The number, decimal.
MOX_EXPORT Mox::String valueToStrep(TaskKey const& key);

} // namespace Kel

namespace Mox {
using Kel::valueToStrep;
}
