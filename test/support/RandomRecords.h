#pragma once

#include <scheduler/TaskSchedulerPriorityStats.h>
#include <support/Random.h>
#include <task/TaskStat.h>

#include <array>
#include <bit>
#include <cmath>
#include <limits>

namespace TestSupport {

/// Records of random values, with those more often that break text forms: bytes that need escapes, numbers at
/// the ends of their ranges, doubles that are no ordinary number. No double is a NaN, which equals nothing.
class RandomRecords {
  public:
    Random& random() { return random_; }

    Mox::String name() {
        constexpr std::string_view awkward("'\"\\\n\r\t\0\x7f\x80\xff{}:,xn", 17);
        std::string bytes;
        for (std::size_t left = random_.below(12); left > 0; --left)
            bytes += random_.oneIn(2) ? random_.of(awkward) : static_cast<char>(random_.below(256));
        return bytes;
    }

    template <class T> T number() {
        constexpr T least = std::numeric_limits<T>::min(), greatest = std::numeric_limits<T>::max();
        std::array<T, 4> const ends{0, 1, least, greatest};
        return random_.oneIn(2) ? random_.of(ends) : static_cast<T>(random_.word());
    }

    double seconds() {
        using Limits = std::numeric_limits<double>;
        std::array const ends{
            0.0, -0.0, Limits::infinity(), -Limits::infinity(), Limits::denorm_min(), Limits::max(),
            0.1, 1e22};
        double const any = std::bit_cast<double>(random_.word());
        return random_.oneIn(3) || std::isnan(any) ? random_.of(ends) : any;
    }

    /// In half the cases outside the enumeration.
    Kel::TaskPriority priority() {
        Mox::U32 const number =
            random_.oneIn(2) ? this->number<Mox::U32>() : static_cast<Mox::U32>(random_.below(6));
        return Kel::TaskPriority::PriorityEnumInstance(number);
    }

    Kel::TaskStat taskStat() { return record<Kel::TaskStat>(); }
    Kel::TaskSchedulerPriorityStats priorityStats() { return record<Kel::TaskSchedulerPriorityStats>(); }

  private:
    template <class T> T record() {
        T result;
        boost::mp11::mp_for_each<Mox::FieldsOf<T>>([&](auto field) { fill(result.*field.pointer); });
        return result;
    }
    void fill(Mox::String& field) { field = name(); }
    void fill(double& field) { field = seconds(); }
    void fill(Mox::U32& field) { field = number<Mox::U32>(); }
    void fill(Mox::U64& field) { field = number<Mox::U64>(); }
    void fill(Kel::TaskKey& field) { field = Kel::TaskKey(number<Mox::U64>()); }
    void fill(Kel::TaskPriority& field) { field = priority(); }
    void fill(Kel::TaskStat::TaskStatus& field) { field.valueIs(static_cast<Mox::U32>(random_.below(32))); }

    Random random_;
};

} // namespace TestSupport
