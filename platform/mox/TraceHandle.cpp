#define MOX_SOURCE_NAME "TraceHandle"
#include <mox/TraceHandle.h>

#include <mox/Assert.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <charconv>
#include <cstdlib>
#include <map>

namespace Mox {

namespace {

constexpr U32 levelCount = 10;
static_assert(levelCount <= 32); // bits of the word that holds them

/// The levels that a list such as "1,4-5" names; what does not parse names none.
U32 parseLevels(std::string_view list) {
    U32 levels = 0;
    char const* at = list.data();
    char const* const end = at + list.size();
    while (at < end) {
        U32 first = 0;
        auto [next, error] = std::from_chars(at, end, first);
        U32 last = first;
        if (error == std::errc() && next < end && *next == '-') {
            auto const upper = std::from_chars(next + 1, end, last);
            next = upper.ptr;
            error = upper.ec;
        }
        if (error != std::errc())
            break;
        for (U32 level = first; level <= last && level < levelCount; ++level)
            levels |= 1u << level;
        at = next < end && *next == ',' ? next + 1 : end;
    }
    return levels;
}

/// The levels that MOX_TRACE enables for the handle.
U32 levelsFromEnvironment(std::string_view name) {
    char const* const text = std::getenv("MOX_TRACE");
    std::string_view rest = text ? text : "";
    U32 levels = 0;
    while (!rest.empty()) {
        std::string_view const entry = rest.substr(0, rest.find_first_of(" ;"));
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
        std::size_t const slash = entry.rfind('/');
        if (slash != std::string_view::npos && entry.substr(0, slash) == name)
            levels |= parseLevels(entry.substr(slash + 1));
    }
    return levels;
}

/// Every handle by its name. Never destroyed, like the logger below: static destructors trace as well.
struct Registry {
    std::recursive_mutex mutex; // making a handle registers it
    std::map<std::string, TraceHandle*, std::less<>> handles;
};

Registry& theRegistry() {
    static Registry& registry = *new Registry;
    return registry;
}

/// One line to standard error. Never destroyed, so that traces of static destructors still have a place.
spdlog::logger& defaultLogger() {
    static spdlog::logger& logger = []() -> spdlog::logger& {
        auto* made = new spdlog::logger("mox", std::make_shared<spdlog::sinks::stderr_sink_mt>());
        made->set_pattern("%Y-%m-%d %H:%M:%S.%f %v");
        made->flush_on(spdlog::level::trace);
        return *made;
    }();
    return logger;
}

} // namespace

/// A handle that nobody defined is never destroyed: whoever asked for it may keep the reference.
TraceHandle& TraceHandle::traceHandle(std::string_view name) {
    Registry& registry = theRegistry();
    std::lock_guard const lock(registry.mutex);
    auto const found = registry.handles.find(name);
    return found != registry.handles.end() ? *found->second : *new TraceHandle(name);
}

TraceHandle::TraceHandle(std::string_view name) : name_(name), levels_(levelsFromEnvironment(name)) {
    Registry& registry = theRegistry();
    std::lock_guard const lock(registry.mutex);
    bool const added = registry.handles.emplace(name_, this).second;
    MOX_ASSERT_AS("no trace handle of that name was asked for before", added);
}

TraceHandle::~TraceHandle() {
    Registry& registry = theRegistry();
    std::lock_guard const lock(registry.mutex);
    registry.handles.erase(name_);
}

void TraceHandle::levelEnabledIs(U32 level, bool enabled) {
    MOX_ASSERT_AS("level <= 9", level < levelCount);
    if (enabled)
        levels_.fetch_or(1u << level);
    else
        levels_.fetch_and(~(1u << level));
}

/// What the old sink holds goes after the lock: its destructor may trace.
void TraceHandle::sinkIs(Sink sink) {
    auto replacement = sink ? std::make_shared<Sink const>(std::move(sink)) : nullptr;
    std::lock_guard const lock(sinkMutex_);
    sink_.swap(replacement);
}

/// The sink is called with the handle unlocked and is held meanwhile: it may trace, or replace itself.
void TraceHandle::record(U32 level, std::string_view source, std::string_view function,
                         std::string_view text) const {
    std::shared_ptr<Sink const> sink;
    {
        std::lock_guard const lock(sinkMutex_);
        sink = sink_;
    }
    if (sink)
        (*sink)({*this, level, source, function, text});
    else
        defaultLogger().info("{}/{} {}::{} {}", name_, level, source, function, text);
}

} // namespace Mox
