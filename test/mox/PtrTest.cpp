#include <mox/Ptr.h>

#include <gtest/gtest.h>

namespace {

using Mox::Ptr;

/// Is pointed to while it dies, and from then on by whoever wants.
struct Mortal : Mox::PtrInterface {
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

} // namespace
