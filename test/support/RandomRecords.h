#pragma once

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
        std::array const ends{0.0, -0.0, Limits::infinity(), -Limits::infinity(), Limits::denorm_min(), 0.1};
        double const any = std::bit_cast<double>(random_.word());
        return random_.oneIn(3) || std::isnan(any) ? random_.of(ends) : any;
    }

    Kel::TaskStat taskStat() {
        Kel::TaskStat result;
        boost::mp11::mp_for_each<Mox::FieldsOf<Kel::TaskStat>>(
            [&](auto field) { fill(result.*field.pointer); });
        return result;
    }

  private:
    void fill(Mox::String& field) { field = name(); }
    void fill(double& field) { field = seconds(); }
    template <class T> void fill(T& field) { field = number<T>(); }
    void fill(Kel::TaskKey& field) { field = Kel::TaskKey(number<Mox::U64>()); }
    /// In half the cases outside the enumeration.
    void fill(Kel::TaskPriority& field) {
        field = Kel::TaskPriority::PriorityEnumInstance(
            random_.oneIn(2) ? number<Mox::U32>() : static_cast<Mox::U32>(random_.below(6)));
    }
    void fill(Kel::TaskStat::TaskStatus& field) { field.valueIs(static_cast<Mox::U32>(random_.below(32))); }

    Random random_;
};

} // namespace TestSupport
