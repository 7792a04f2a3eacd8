#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/String.h>

#include <iosfwd>

namespace Kel {

/// How urgent a task is: lower numbers are more urgent.
class MOX_EXPORT TaskPriority {
  public:
    enum PriorityEnum : Mox::U32 {
        absolute = 0, ///< always first, never interrupted in favour of others
        high = 1,
        normal = 2,
        low = 3,
        scavenge = 4,     ///< runs only when nothing else is runnable
        oneBeyondLast = 5 ///< a sentinel, never a task's priority
    };

    constexpr TaskPriority(PriorityEnum value = absolute) : value_(value) {}

    constexpr PriorityEnum numericValue() const { return value_; }
    constexpr Mox::U32 hash() const { return value_; }
    constexpr bool isValid() const { return value_ <= scavenge; }
    /// Whether a run streak of this priority may be interrupted in favour of lower ones.
    constexpr bool isValidTargetPriorityForBump() const { return value_ >= high && value_ < low; }
    constexpr TaskPriority nextLowerPriority() const {
        return static_cast<PriorityEnum>(Mox::U32{value_} + 1);
    }

    /// "A", "H", "N", "L", "S" or "-". Requires: a value of the enumeration.
    Mox::String8 oneCharString() const;
    /// The enumerator's name, or "TaskPriority::PriorityEnum(%d)" for a number outside the enumeration.
    static Mox::String8 stringValue(PriorityEnum value);
    Mox::String8 toStrep() const { return stringValue(value_); }

    /// The value of that name. Throws Mox::RangeException for a name that is none.
    static PriorityEnum PriorityEnumInstance(Mox::String8 const& name);
    static constexpr PriorityEnum PriorityEnumInstance(Mox::U32 number) {
        return static_cast<PriorityEnum>(number);
    }

    friend constexpr bool operator==(TaskPriority a, TaskPriority b) { return a.value_ == b.value_; }
    /// Map order only: by the number.
    friend constexpr bool operator<(TaskPriority a, TaskPriority b) { return a.value_ < b.value_; }
    /// The name, as toStrep().
    friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskPriority priority);

  private:
    PriorityEnum value_;
};

} // namespace Kel
