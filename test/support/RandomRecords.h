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
            bytes += random_.oneIn(2) ? awkward[random_.below(awkward.size())]
                                      : static_cast<char>(random_.below(256));
        return bytes;
    }

    template <class T> T number() {
        constexpr T least = std::numeric_limits<T>::min(), greatest = std::numeric_limits<T>::max();
        std::array<T, 4> const ends{0, 1, least, greatest};
        return random_.oneIn(2) ? ends[random_.below(ends.size())] : static_cast<T>(random_.word());
    }

    double seconds() {
        using Limits = std::numeric_limits<double>;
        std::array const ends{
            0.0, -0.0, Limits::infinity(), -Limits::infinity(), Limits::denorm_min(), Limits::max(),
            0.1, 1e22};
        double const any = std::bit_cast<double>(random_.word());
        return random_.oneIn(3) || std::isnan(any) ? ends[random_.below(ends.size())] : any;
    }

    /// In half the cases outside the enumeration.
    Kel::TaskPriority priority() {
        Mox::U32 const number =
            random_.oneIn(2) ? this->number<Mox::U32>() : static_cast<Mox::U32>(random_.below(6));
        return Kel::TaskPriority::PriorityEnumInstance(number);
    }

    Kel::TaskStat taskStat() {
        Kel::TaskStat stat;
        stat.taskNameIs(name());
        stat.taskKeyIs(Kel::TaskKey(number<Mox::U64>()));
        stat.taskPriorityIs(priority());
        stat.taskRunIs(number<Mox::U32>());
        stat.taskTotalRunTimeIs(seconds());
        stat.taskWorkCountIs(number<Mox::U64>());
        stat.taskQuantumViolation500Is(number<Mox::U32>());
        stat.taskQuantumViolation200Is(number<Mox::U32>());
        stat.taskRunTimeHighWaterMarkIs(seconds());
        stat.taskLastSchedulingLatencyIs(seconds());
        stat.taskSchedulingLatencyHighWaterMarkIs(seconds());
        stat.taskDeadCountIs(number<Mox::U32>());
        stat.taskStatusIs(Kel::TaskStat::TaskStatus(static_cast<Mox::U32>(random_.below(32))));
        return stat;
    }

    Kel::TaskSchedulerPriorityStats priorityStats() {
        Kel::TaskSchedulerPriorityStats stats(priority());
        stats.runnableTasksIs(number<Mox::U32>());
        stats.idleTasksIs(number<Mox::U32>());
        stats.deadTasksIs(number<Mox::U32>());
        stats.totalRunCountIs(number<Mox::U64>());
        return stats;
    }

  private:
    Random random_;
};

} // namespace TestSupport
