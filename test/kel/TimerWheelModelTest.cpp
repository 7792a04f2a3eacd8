#include <kel/TimerWheel.h>

#include <support/Calls.h>
#include <support/Random.h>
#include <support/VirtualTime.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>

namespace {

using Mox::Ptr;
using Mox::S64;
using Mox::Seconds;

using Timer = TestSupport::TimerCall<Kel::TimerWheel::NotifieeConst>;

constexpr Seconds tickSeconds = 0.01;

Seconds timeOf(S64 tick) { return static_cast<Seconds>(tick) * tickSeconds; }

/// The first tick not before that time, found the slow way.
S64 tickOf(Seconds time) {
    S64 tick = std::llround(time / tickSeconds) - 2;
    while (timeOf(tick) < time)
        ++tick;
    return tick;
}

struct Form {
    bool lazy;
    Mox::U32 buckets;
    Seconds start;
};

/// A random program that arms, moves, disarms, destroys and polls timers, inside expiries too, against a map
/// sorted by ticks.
class WheelProgram {
  public:
    explicit WheelProgram(Form const& form)
        : wheel_(Kel::TimerWheel::TimerWheelIs(nullptr, nullptr, 10, 8640000, form.lazy, form.buckets)) {
        time_.clock->nowIs(form.start);
        for (std::size_t i = 0; i < slots_.size(); ++i)
            renew(i);
    }

    void step() {
        if (random_.oneIn(3))
            turn();
        else
            change();
        ASSERT_EQ(model_.size(), wheel_->armed());
        if (!model_.empty()) {
            ASSERT_LE(time_.manager->nextDue(), std::max(0.0, timeOf(model_.begin()->first) - Mox::now()));
        }
    }
    std::size_t fired() const { return fired_; }

  private:
    using Model = std::multimap<S64, std::size_t>;
    struct Slot {
        Ptr<Timer> timer;
        Seconds at = Mox::endOfTime;
        Model::iterator place;
        std::size_t armedInTurn = 0;
    };

    void renew(std::size_t i) {
        slots_[i].timer = new Timer(wheel_, [this, i] { expired(i); });
    }
    void forget(Slot& slot) {
        if (slot.at != Mox::endOfTime)
            model_.erase(slot.place);
        slot.at = Mox::endOfTime;
    }

    void change() {
        std::size_t const i = random_.below(slots_.size());
        Slot& slot = slots_[i];
        ASSERT_EQ(slot.at, slot.timer->timeMin());
        forget(slot);
        if (random_.oneIn(20))
            return renew(i);
        slot.at = random_.oneIn(5) ? Mox::endOfTime : someTime();
        slot.timer->timeMinIs(slot.at);
        if (slot.at == Mox::endOfTime)
            return;
        slot.place = model_.emplace(tickOf(slot.at), i);
        slot.armedInTurn = turns_;
    }
    Seconds someTime() {
        Seconds const now = Mox::now();
        switch (random_.below(6)) {
        case 0: return now + random_.between(-1.0, 0.02);
        case 1: return now + random_.between(0.0, 0.1);
        case 2: return now + random_.between(0.0, 2.0);
        case 3: return now + random_.between(0.0, 100.0);
        case 4: return timeOf(tickOf(now) + static_cast<S64>(random_.below(2048)));
        default: return random_.oneIn(50) ? 1e9 : now + 5.0;
        }
    }

    void turn() {
        constexpr std::array<Seconds, 6> steps{0.0, 0.003, 0.01, 0.05, 1.0, 30.0};
        time_.clock->nowInc(random_.between(0.0, 1.0) * steps[random_.below(steps.size())]);
        ++turns_;
        lastTick_ = std::numeric_limits<S64>::min();
        time_.manager->runOnce();
        auto at = model_.begin();
        for (; at != model_.end() && timeOf(at->first) <= Mox::now(); ++at)
            ASSERT_EQ(turns_, slots_[at->second].armedInTurn) << "it is due and was not called";
        ++turns_; // what is armed between turns may fire in the next one
    }
    void expired(std::size_t i) {
        Slot& slot = slots_[i];
        ++fired_;
        ASSERT_LE(slot.at, Mox::now()) << "early, or not armed";
        ASSERT_GE(slot.place->first, lastTick_) << "not in the order of ticks";
        ASSERT_NE(turns_, slot.armedInTurn) << "in the turn in which it was armed";
        ASSERT_EQ(Mox::endOfTime, slot.timer->timeMin());
        lastTick_ = slot.place->first;
        forget(slot);
        for (std::size_t changes = random_.below(3); changes > 0; --changes)
            change();
    }

    TestSupport::VirtualTime time_;
    TestSupport::Random random_;
    Ptr<Kel::TimerWheel> const wheel_;
    Model model_;
    std::array<Slot, 100> slots_;
    std::size_t turns_ = 1;
    S64 lastTick_ = 0;
    std::size_t fired_ = 0;
};

class TimerWheelModelTest : public testing::TestWithParam<Form> {};

TEST_P(TimerWheelModelTest, FiresWhatASortedMapFires) {
    std::size_t const steps = TestSupport::operations(250'000);
    WheelProgram program(GetParam());
    for (std::size_t step = 0; step < steps && !HasFailure(); ++step)
        program.step();
    EXPECT_GT(program.fired(), steps / 4);
}

constexpr Seconds shortOf32Bits = 42949672.96 - 600.0; // in ticks

INSTANTIATE_TEST_SUITE_P(Forms, TimerWheelModelTest,
                         testing::Values(Form{true, 1024, 0.0}, Form{false, 1024, 0.0},
                                         Form{true, 8, shortOf32Bits}, Form{false, 8, shortOf32Bits}),
                         [](auto const& form) {
                             return std::string(form.param.lazy ? "Lazy" : "Eager") +
                                    std::to_string(form.param.buckets) + "Buckets";
                         });

} // namespace
