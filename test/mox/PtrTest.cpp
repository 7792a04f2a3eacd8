#include <mox/Ptr.h>

#include <gtest/gtest.h>

#include <utility>

namespace {

using Mox::Ptr;

/// Is pointed to while it dies, and from then on by whoever wants.
struct Mortal : Mox::PtrInterface {
    Mortal(int& zeroes, Ptr<Mortal>* tooLong) : counted(zeroes), keeper(tooLong) {}
    void zeroReferencesIs(bool zero) override {
        ++counted;
        for (int i = 0; i < 3; ++i) {
            Ptr<Mortal> const one = this, two = one;
            EXPECT_EQ(2u, references());
        }
        if (keeper)
            *keeper = this;
        PtrInterface::zeroReferencesIs(zero);
    }
    int& counted;
    Ptr<Mortal>* const keeper;
};

TEST(PtrDeathTest, LastOneEndsTheEntityOnceAndNoneMayOutliveIt) {
    int zeroes = 0;
    Ptr<Mortal> first = new Mortal(zeroes, nullptr);
    Ptr<Mox::PtrInterface> base = first;                  // copied to the base
    Ptr<Mox::PtrInterface const> moved = std::move(base); // moved, and moves its count along
    EXPECT_EQ(2u, std::exchange(first, nullptr)->references());
    EXPECT_EQ(0, zeroes);
    moved = nullptr;
    EXPECT_EQ(1, zeroes);
    EXPECT_DEATH(
        Ptr<Mortal>(new Mortal(zeroes, &first)),
        "Assertion failed: references\\(\\) == 0, source PtrInterface, function ~PtrInterface, line");
}

} // namespace
