#pragma once

#include <mox/Export.h>

/// Assertions stay on in every build: a broken precondition ends the process at once, with its text.
///
/// Which to use when:
/// - MOX_ASSERT is the ordinary one: the condition, as it is written, says what was required.
/// - MOX_ASSERT_AS is for a text that belongs to the interface, because a header or a manual states it and
///   logs are searched for it, so that it stays when things are renamed; and for a condition that would not
///   tell its reader what was required. The text is the precondition in the caller's terms.
/// - MOX_ASSERT_IN is for headers, where MOX_SOURCE_NAME would be that of whichever source includes them.
/// - MOX_FAIL stands where the condition would always be false.
/// - Mox::assertionFailed() itself is for a function that reports for another: where the function or the
///   source that the message names is not the one it stands in.
///
/// They are for the mistakes of the program; what comes from outside is refused by a RangeException.
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
