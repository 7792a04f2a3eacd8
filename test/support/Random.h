#pragma once

#include <boost/circular_buffer.hpp>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <utility>

namespace TestSupport {

/// Random numbers from a seed that is printed: a new one each time, or KELTASK_TEST_SEED of the environment,
/// to see a failure again. What the random program did last is printed at the end of a test that fails.
class Random {
  public:
    Random();
    ~Random();

    /// 0 to limit - 1.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(generator_() % limit); }
    /// 64 random bits, on every machine.
    std::uint64_t word() { return generator_(); }
    bool oneIn(std::size_t chances) { return below(chances) == 0; }
    /// At least `least`, less than `limit`.
    double between(double least, double limit) {
        return std::uniform_real_distribution<double>(least, limit)(generator_);
    }
    template <class Range> auto& of(Range& range) { return range[below(std::size(range))]; }

    /// Notes an operation of the program, and what it is done with.
    void doing(std::string const& operation, double with = 0);

  private:
    std::mt19937_64 generator_;
    boost::circular_buffer<std::pair<std::string, double>> latest_{20};
};

/// How many operations a random program makes: a tenth of those asked for under a sanitizer.
constexpr std::size_t operations(std::size_t count) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return count / 10;
#else
    return count;
#endif
}

} // namespace TestSupport
