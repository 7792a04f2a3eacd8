#include <mox/Ptr.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

using Mox::Ptr;

struct Life {
    int zeroes = 0;
    int deaths = 0;
};

/// Counts what happens to it, and does something while it dies.
class Mortal : public Mox::PtrInterface {
  public:
    using Action = std::function<void(Mortal*)>;

    explicit Mortal(Life& life, Action atZero = {}) : life_(life), atZero_(std::move(atZero)) {}
    ~Mortal() override { ++life_.deaths; }

    void zeroReferencesIs(bool zero) override {
        ++life_.zeroes;
        if (atZero_)
            atZero_(this);
        PtrInterface::zeroReferencesIs(zero);
    }

  private:
    Life& life_;
    Action const atZero_;
};

TEST(Ptr, LastOfSeveralReferencesEndsTheEntityOnce) {
    Life life;
    Ptr<Mortal> first = new Mortal(life);
    Ptr<Mox::PtrInterface> base = first;                  // copied to the base
    Ptr<Mox::PtrInterface const> moved = std::move(base); // moved, and moves its count along
    EXPECT_EQ(2u, first->references());
    first = nullptr;
    EXPECT_EQ(0, life.zeroes);
    moved = nullptr;
    EXPECT_EQ(1, life.zeroes);
    EXPECT_EQ(1, life.deaths);
}

TEST(Ptr, MadeWhileDyingNeitherRevivesNorDestroysTwice) {
    Life life;
    Ptr<Mortal> entity = new Mortal(life, [](Mortal* self) {
        for (int i = 0; i < 3; ++i) {
            Ptr<Mortal> const one = self;
            Ptr<Mortal> const two = one;
            EXPECT_EQ(2u, self->references());
        }
        EXPECT_EQ(0u, self->references());
    });
    entity = nullptr;
    EXPECT_EQ(1, life.zeroes);
    EXPECT_EQ(1, life.deaths);
}

TEST(PtrDeathTest, ThatOutlivesItsEntityIsAnAssertion) {
    auto const keepOneTooLong = [] {
        Life life;
        Ptr<Mortal> kept;
        Ptr<Mortal> entity = new Mortal(life, [&](Mortal* self) { kept = self; });
        entity = nullptr;
    };
    EXPECT_DEATH(
        keepOneTooLong(),
        "Assertion failed: references\\(\\) == 0, source PtrInterface, function ~PtrInterface, line");
}

} // namespace
