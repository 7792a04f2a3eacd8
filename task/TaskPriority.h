#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>
#include <mox/NboAttrLogForward.h>
#include <mox/Strep.h>

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
    /// Reads the text form and moves `position` behind it. Throws Mox::RangeException, with `position` where
    /// it was, when none stands there.
    TaskPriority(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end);
    /// Reads the log form: the number, as i32.
    template <Mox::NboAttrLog::AnyIn In> explicit TaskPriority(In* in) {
        Mox::S32 number = 0;
        in->read(&number);
        value_ = static_cast<PriorityEnum>(number);
    }

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

    /// The value of that name, as stringValue() gives it. Throws Mox::RangeException for a name that is none.
    static PriorityEnum PriorityEnumInstance(Mox::String8 const& name);
    static constexpr PriorityEnum PriorityEnumInstance(Mox::U32 number) {
        return static_cast<PriorityEnum>(number);
    }

    friend constexpr bool operator==(TaskPriority a, TaskPriority b) { return a.value_ == b.value_; }
    /// Map order only: by the number.
    friend constexpr bool operator<(TaskPriority a, TaskPriority b) { return a.value_ < b.value_; }
    /// The name, as toStrep().
    friend MOX_EXPORT std::ostream& operator<<(std::ostream& stream, TaskPriority priority);
    friend MOX_EXPORT Mox::Ptr<Mox::NboAttrLog::Out> const&
    operator<<(Mox::Ptr<Mox::NboAttrLog::Out> const& out, TaskPriority const& priority);

  private:
    PriorityEnum value_;
};

/// The text form: the name, or the number's form outside the enumeration, in single quotes.
MOX_EXPORT Mox::String valueToStrep(TaskPriority::PriorityEnum value);
MOX_EXPORT Mox::String valueToStrep(TaskPriority const& priority);
/// Reads it back. Throws Mox::RangeException, and changes nothing, when none stands there.
MOX_EXPORT void sequenceToValue(Mox::String::IteratorConst& position, Mox::String::IteratorConst const& end,
                                TaskPriority::PriorityEnum* value);

} // namespace Kel

namespace Mox {
using Kel::sequenceToValue;
using Kel::valueToStrep;
} // namespace Mox
