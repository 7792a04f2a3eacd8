#include <mox/ActivityManager.h>

#include <support/Calls.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace {

using Mox::Ptr;

using Alarm = TestSupport::TimerCall<Mox::Clock::NotifieeConst>;

// The owner is made before the thread's manager, and so goes after it: as a root in a global variable.
TEST(ThreadsEnd, ManagerAndTimeCanStillBeUsedWhetherOrNotSomebodyHoldsThem) {
    for (bool const isHeld : {true, false}) {
        int calls = 0;
        Mox::Seconds read = 0;
        std::thread([&] {
            static thread_local std::shared_ptr<void> owner;
            Ptr<Alarm> const alarm = new Alarm(Mox::activityManager()->config()->clock(), [&] { ++calls; });
            alarm->timeMinIs(1e9);
            owner = {nullptr, [&, held = isHeld ? alarm : nullptr](void*) {
                         read = Mox::now();
                         if (held)
                             held->timeMinIs(0);
                         Mox::activityManager()->runOnce();
                     }};
        }).join();
        EXPECT_GT(read, 0);
        EXPECT_EQ(isHeld ? 1 : 0, calls);
    }
}

} // namespace
