#include <support/Random.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace TestSupport {

Random::Random() {
    char const* const given = std::getenv("KELTASK_TEST_SEED");
    std::uint64_t const seed = given ? std::strtoull(given, nullptr, 10) : std::random_device()();
    std::printf("KELTASK_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
    std::fflush(stdout); // before whatever goes wrong
    generator_.seed(seed);
}

Random::~Random() {
    if (testing::Test::HasFailure())
        for (auto const& [operation, with] : latest_)
            std::printf("did %s %g\n", operation.c_str(), with);
}

void Random::doing(std::string const& operation, double with) { latest_.push_back({operation, with}); }

} // namespace TestSupport
