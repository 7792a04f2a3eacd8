#define MOX_SOURCE_NAME "TraceHandleTest"
#include <mox/TraceHandle.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Mox::TraceHandle;

TEST(TraceHandle, EnvironmentEnablesLevelsAtTheStart) {
    struct {
        char const* environment;
        char const* enabled;
    } const cases[] = {
        {"Pump/1,4-5", "145"},
        {"Pump/0-9", "0123456789"},
        {"Pump/7-30", "789"},
        {"Pump/9", "9"},
        {"Valve/1 Pump/2;Pump/9", "29"},
        {"Pumpe/1 Pum/2", ""},
        {"Pump/", ""},
        {"Pump", ""},
        {"", ""},
        {"Pump/x", ""},
        {"Pump/3,x,5", "3"},
        {"Pump/3-,5", ""},
        {"Pump/5-4", ""},
        {"Pump/99999999999", ""},
        {" ; Pump/6", "6"},
    };
    for (auto const& c : cases) {
        setenv("MOX_TRACE", c.environment, 1);
        TraceHandle const handle("Pump");
        std::string enabled;
        for (Mox::U32 level = 0; level <= 9; ++level)
            if (handle.levelEnabled(level))
                enabled += std::to_string(level);
        EXPECT_EQ(c.enabled, enabled) << c.environment;
    }
    unsetenv("MOX_TRACE");
}

TEST(TraceHandle, FormatsOnlyWhatIsEnabled) {
    TraceHandle handle("Pump");
    std::vector<std::string> records;
    handle.sinkIs([&](Mox::TraceRecord const& r) {
        std::ostringstream text;
        text << r.handle.name() << '/' << r.level << ' ' << r.source << ' ' << r.function << ' ' << r.text;
        records.push_back(text.str());
    });
    int formatted = 0;
    handle.levelEnabledIs(4, true);
    for (Mox::U32 level : {3u, 4u, 5u})
        MOX_TRACE_AT(handle, level, "stroke " << ++formatted);
    handle.levelEnabledIs(4, false);
    MOX_TRACE_AT(handle, 4, "stroke " << ++formatted);
    EXPECT_THAT(records, testing::ElementsAre("Pump/4 TraceHandleTest TestBody stroke 1"));
    EXPECT_EQ(1, formatted);
}

TEST(TraceHandle, DefaultSinkWritesOneLineToStandardErrorAsItIs) {
    TraceHandle& handle = TraceHandle::traceHandle("Default");
    EXPECT_EQ(&handle, &TraceHandle::traceHandle("Default"));
    testing::internal::CaptureStderr();
    handle.record(1, "Source", "function", "100 %s {} of it");
    handle.sinkIs([](Mox::TraceRecord const&) {});
    handle.record(1, "Source", "function", "not this");
    handle.sinkIs(nullptr);
    handle.record(2, "Source", "function", "and this");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("[^\n]*Default/1 Source::function 100 %s \\{\\} of it\n"
                                      "[^\n]*Default/2 Source::function and this\n"));
}

TEST(TraceHandleDeathTest, AssertsOnASecondDefinitionAndAnUnknownLevel) {
    TraceHandle handle("Pump");
    EXPECT_DEATH(TraceHandle second("Pump"), "no trace handle of that name was asked for before");
    EXPECT_DEATH(handle.levelEnabledIs(10, true), "level <= 9");
}

} // namespace
