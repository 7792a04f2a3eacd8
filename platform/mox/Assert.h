#pragma once

#include <mox/Export.h>

/// Assertions stay on in every build: a broken precondition ends the process at once, with its text.
///
/// A source states the name that its assertions and traces carry by defining MOX_SOURCE_NAME before its
/// first include; the name may differ from the file's.

#ifndef MOX_SOURCE_NAME
#define MOX_SOURCE_NAME __FILE__
#endif

namespace Mox {

/// Prints the condition's text, source name, function and line to standard error and aborts.
[[noreturn]] MOX_EXPORT void assertionFailed(char const* condition, char const* source, char const* function,
                                             int line) noexcept;

} // namespace Mox

/// The condition under a fixed source name, for headers.
#define MOX_ASSERT_IN(source, text, condition)                                                               \
    (__builtin_expect(static_cast<bool>(condition), 1)                                                       \
         ? static_cast<void>(0)                                                                              \
         : ::Mox::assertionFailed(text, source, __func__, __LINE__))

/// Requires the condition and reports it by the text given: for texts that operators know by heart.
#define MOX_ASSERT_AS(text, condition) MOX_ASSERT_IN(MOX_SOURCE_NAME, text, condition)

/// Requires the condition and reports it by its own text.
#define MOX_ASSERT(condition) MOX_ASSERT_AS(#condition, condition)

/// A place that no correct program reaches.
#define MOX_FAIL(text) ::Mox::assertionFailed(text, MOX_SOURCE_NAME, __func__, __LINE__)
