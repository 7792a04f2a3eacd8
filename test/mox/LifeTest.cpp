#include <mox/ActivityManager.h>

#include <support/Calls.h>
#include <support/Names.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace {

using namespace TestSupport;

/// Is pointed to while it dies, and from then on by whoever wants.
struct Mortal : PtrInterface {
    explicit Mortal(Ptr<Mortal>& tooLong) : keeper(tooLong) {}
    void zeroReferencesIs(bool zero) override {
        EXPECT_EQ(1u, Ptr<Mortal>(this)->references());
        keeper = this;
        PtrInterface::zeroReferencesIs(zero);
    }
    Ptr<Mortal>& keeper;
};

TEST(PtrDeathTest, NoneMayOutliveTheEntity) {
    Ptr<Mortal> kept;
    EXPECT_DEATH(
        Ptr<Mortal>(new Mortal(kept)),
        "Assertion failed: references\\(\\) == 0, source PtrInterface, function ~PtrInterface, line");
}

// The owner is made before the thread's manager, and so goes after it: as a root in a global variable.
TEST(ThreadsEnd, ManagerAndTimeCanStillBeUsedWhetherOrNotSomebodyHoldsThem) {
    for (bool const isHeld : {true, false}) {
        int calls = 0;
        Seconds read = 0;
        std::thread([&] {
            static thread_local std::shared_ptr<void> owner;
            Ptr<Clock::NotifieeConst> const alarm =
                new TimerCall<Clock::NotifieeConst>(activityManager()->config()->clock(), [&] { ++calls; });
            alarm->timeMinIs(1e9);
            owner = {nullptr, [&, held = isHeld ? alarm : nullptr](void*) {
                         read = now();
                         if (held)
                             held->timeMinIs(0);
                         activityManager()->runOnce();
                     }};
        }).join();
        EXPECT_GT(read, 0);
        EXPECT_EQ(isHeld ? 1 : 0, calls);
    }
}

} // namespace
