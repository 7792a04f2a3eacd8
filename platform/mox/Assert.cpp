#include <mox/Assert.h>

#include <cstdio>
#include <cstdlib>

void Mox::assertionFailed(char const* condition, char const* source, char const* function,
                          int line) noexcept {
    std::fprintf(stderr, "Assertion failed: %s, source %s, function %s, line %d\n", condition, source,
                 function, line);
    std::fflush(stderr);
    std::abort();
}
