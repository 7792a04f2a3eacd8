#define MOX_SOURCE_NAME "TraceHandleTest"
#include <mox/TraceHandle.h>

#include <support/Names.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

namespace {

using namespace TestSupport;

TEST(TraceHandle, EnvironmentEnablesLevelsAtTheStart) {
    std::pair<char const*, char const*> const cases[] = {
        {"Pump/1,4-5", "145"},      {"Pump/7-30", "789"},     {"Valve/1 Pump/2;Pump/9", "29"},
        {"Pumpe/1 Pum/2 Pump", ""}, {"Pump/3,x,5", "3"},      {"Pump/3-,5", ""},
        {"Pump/5-4", ""},           {"Pump/99999999999", ""}, {" ; Pump/6 Pump/Seal/3", "6"}};
    for (auto const& [environment, wanted] : cases) {
        setenv("MOX_TRACE", environment, 1);
        TraceHandle const handle("Pump"), below("Pump/Seal");
        std::string enabled;
        for (U32 level = 0; level <= 9; ++level)
            if (handle.levelEnabled(level))
                enabled += std::to_string(level);
        EXPECT_EQ(below.levelEnabled(3), enabled == "6") << environment;
        EXPECT_EQ(wanted, enabled) << environment;
    }
    unsetenv("MOX_TRACE");
}

TEST(TraceHandle, FormatsOnlyWhatIsEnabledForItsSinkOrAsOneLineOnStandardError) {
    TraceHandle& handle = TraceHandle::traceHandle("Default");
    std::string sunk;
    int formatted = 0;
    auto const trace = [&] {
        for (U32 level : {3u, 4u, 5u})
            MOX_TRACE_AT(handle, level, "100 %s {} of it " << ++formatted);
    };
    testing::internal::CaptureStderr();
    handle.levelEnabledIs(4, true);
    handle.sinkIs([&](TraceRecord const& r) {
        sunk += std::string(r.handle.name()) + std::string(r.text);
        handle.sinkIs(nullptr); // the default again, from the next one on
    });
    trace();
    trace();
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        testing::MatchesRegex("[^\n]*Default/4 TraceHandleTest::operator\\(\\) 100 %s \\{\\} of it 2\n"));
    EXPECT_EQ("Default100 %s {} of it 1", sunk);
    EXPECT_EQ(2, formatted);
}

} // namespace
