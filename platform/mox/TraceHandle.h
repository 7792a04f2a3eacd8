#pragma once

#include <mox/Assert.h>
#include <mox/Export.h>
#include <mox/Integers.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string_view>

namespace Mox {

class TraceHandle;

/// One trace message as a sink gets it; the texts live for the call only.
struct TraceRecord {
    TraceHandle const& handle;
    U32 level;
    std::string_view source;
    std::string_view function;
    std::string_view text;
};

/// A named place where traces go, with ten levels (0 to 9) that are switched one by one.
///
/// MOX_TRACE in the environment switches levels on at start: "Name/1,4-5", several handles separated by
/// blanks or semicolons. Write messages with the macro MOX_TRACE_AT, which formats nothing while the level is
/// off. Handles may be used from any thread.
class MOX_EXPORT TraceHandle {
  public:
    using Sink = std::function<void(TraceRecord const&)>;

    /// The handle of that name; one that nobody defined is made, and lives as long as the process.
    static TraceHandle& traceHandle(std::string_view name);

    /// Defines the handle of that name, as a variable of namespace scope: a library that traces on hot paths
    /// reaches its levels by one load. Requires: no handle of that name was asked for before; give the
    /// variable an early init_priority.
    explicit TraceHandle(std::string_view name);
    ~TraceHandle();
    TraceHandle(TraceHandle const&) = delete;
    TraceHandle& operator=(TraceHandle const&) = delete;

    std::string const& name() const { return name_; }

    bool levelEnabled(U32 level) const {
        return (levels_.load(std::memory_order_relaxed) >> level & 1u) != 0;
    }
    /// Requires: level <= 9.
    void levelEnabledIs(U32 level, bool enabled);

    /// Where this handle's messages go; null restores the default, one line each to standard error.
    void sinkIs(Sink sink);

    /// Hands a message to the sink, whether or not the level is enabled.
    void record(U32 level, std::string_view source, std::string_view function, std::string_view text) const;

  private:
    std::string const name_;
    std::atomic<U32> levels_;
    mutable std::mutex sinkMutex_;
    std::shared_ptr<Sink const> sink_;
};

/// Formats a message and hands it to the sink. Never inlined: a function on a hot path whose level is off
/// pays for the test alone, not for a frame that a text stream needs.
template <class Write>
[[gnu::noinline, gnu::cold]] void traceMessage(TraceHandle const& handle, U32 level, std::string_view source,
                                               std::string_view function, Write const& write) {
    std::ostringstream text;
    write(text);
    handle.record(level, source, function, text.str());
}

} // namespace Mox

/// Writes a message, given as stream insertions ("Ran " << task), if the level of the handle is enabled;
/// under the name of the operation that it is about, for helpers that do an operation's work.
#define MOX_TRACE_OF(operation, traceHandle, traceLevel, message)                                            \
    do {                                                                                                     \
        if ((traceHandle).levelEnabled(traceLevel)) [[unlikely]]                                             \
            ::Mox::traceMessage(traceHandle, traceLevel, MOX_SOURCE_NAME, operation,                         \
                                [&](std::ostream& moxTraceText) { moxTraceText << message; });               \
    } while (false)

/// The same, under the name of the function it stands in.
#define MOX_TRACE_AT(traceHandle, traceLevel, message)                                                       \
    MOX_TRACE_OF(__func__, traceHandle, traceLevel, message)
