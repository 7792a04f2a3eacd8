#include <mox/Exception.h>
#include <mox/ReactorList.h>
#include <mox/TraceHandle.h>

#include <support/Random.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using Mox::Ptr;
using Mox::U32;

/// A notifying type with two notifications.
class Lamp : public Mox::PtrInterface {
  public:
    class NotifieeConst;
    using Notifiee = Mox::NonConstNotifieeOf<Lamp, NotifieeConst>;
    enum : U32 { light, heat };

    void lightUp() const { reactors_.notify<light>(); }
    void heatUp() const { reactors_.notify<heat>(); }
    Mox::ReactorChain* moxReactors() const { return &reactors_; }

  protected:
    mutable Mox::ReactorList<NotifieeConst> reactors_;
};

class Lamp::NotifieeConst : public Mox::NotifieeOf<Lamp> {
  public:
    virtual void onLight() {}
    virtual void onHeat() {}
    static constexpr auto callback(U32 notification) {
        return notification == light ? &NotifieeConst::onLight : &NotifieeConst::onHeat;
    }
};

/// A type that extends the notifying type by a notification of its own.
class ColouredLamp : public Lamp {
  public:
    class NotifieeConst;
    void colourIs() const { reactors_.notify<2, NotifieeConst>(); }
};

class ColouredLamp::NotifieeConst : public Mox::NotifieeOf<ColouredLamp, Lamp::NotifieeConst> {
  public:
    virtual void onColour() {}
    static constexpr auto callback(U32) { return &NotifieeConst::onColour; }
};

/// Writes down what it is told.
struct Watcher : ColouredLamp::NotifieeConst {
    explicit Watcher(std::string& log) : told(log) {}
    void onLight() override { told += 'l'; }
    void onHeat() override { told += 'h'; }
    void onColour() override { told += 'c'; }
    std::string& told;
};

TEST(Reactor, OfADerivedTypeHearsBothWhileAPlainOneHearsItsOwn) {
    struct Plain : Lamp::Notifiee {
        void onLight() override { ++lights; }
        int lights = 0;
    };
    std::string told;
    Ptr<ColouredLamp> const lamp = new ColouredLamp;
    Ptr<Plain> const plain = new Plain;
    plain->notifierIs(lamp);
    Ptr<Watcher> const both = new Watcher(told);
    both->notifierIs(lamp);
    lamp->lightUp();
    lamp->colourIs();
    lamp->heatUp();
    EXPECT_EQ("lch", told);
    EXPECT_EQ(1, plain->lights);

    both->Lamp::NotifieeConst::notifierIs(new Lamp); // a plain lamp will do, but is no coloured one
    EXPECT_EQ(nullptr, both->notifier());
    both->Lamp::NotifieeConst::notifier()->lightUp();
    EXPECT_EQ("lchl", told);
}

/// A random program of walks, nested ones too, whose callbacks change the list, against a model: each joining
/// draws a ticket, and a walk tells the tickets drawn before it that are still good. What a callback throws
/// goes to its handler, or to the trace when the reactor is gone.
struct RandomWalks {
    struct Member : Lamp::Notifiee {
        explicit Member(RandomWalks& owner) : program(owner) {}
        void onLight() override { program.tell(*this); }
        void onException(std::exception_ptr) noexcept override {
            program.caught += std::to_string(number) + ' ';
        }
        bool isInTheList() const {
            return notifier() && hasNotificationActive() && isRegisteredNotifiee() && !zombie;
        }

        RandomWalks& program;
        std::size_t const number = ++program.made;
        std::size_t ticket = 0;
        bool zombie = false;
    };
    struct Frame {
        std::size_t next, end;
    };

    /// The next in the list from there on whose switch is on.
    std::size_t nextTold(std::size_t ticket) const {
        auto at = tickets.lower_bound(ticket);
        while (at != tickets.end() && !at->second->notificationActive(Lamp::light))
            ++at;
        return at == tickets.end() ? lastTicket + 1 : at->first;
    }
    void walk() {
        frames.push_back({0, lastTicket + 1});
        lamp->lightUp();
        EXPECT_GE(nextTold(frames.back().next), frames.back().end) << "somebody was not told";
        frames.pop_back();
    }
    void tell(Member& member) {
        std::size_t const next = nextTold(frames.back().next);
        ASSERT_LT(next, frames.back().end);
        ASSERT_EQ(&member, tickets.at(next));
        frames.back().next = next + 1;
        std::size_t const number = member.number;
        for (std::size_t changes = random.below(3); changes > 0; --changes)
            change();
        if (frames.size() < 4 && random.oneIn(6))
            walk();
        if (random.oneIn(10))
            fail(number);
    }
    void fail(std::size_t number) {
        bool const isThere = std::ranges::any_of(members, [&](auto& m) { return m && m->number == number; });
        bool const isKnown = random.oneIn(2);
        thrown += isThere   ? std::to_string(number)
                  : isKnown ? "A reactor threw: too dark"
                            : "A reactor threw: an exception of unknown type";
        thrown += ' ';
        if (isKnown)
            throw Mox::RangeException("too dark");
        throw 1;
    }
    void change() {
        Ptr<Member>& member = members[random.below(members.size())];
        switch (member ? random.below(7) : 0) {
        case 0: tickets.erase(member ? member->ticket : 0), member = new Member(*this); break;
        case 1: tickets.erase(std::exchange(member->ticket, 0)), member->notifierIs(lamp); break;
        case 2: member->notifierIs(nullptr); break;
        case 3: member->hasNotificationActiveIs(random.oneIn(2)); break;
        case 6: member->notificationActiveIs(Lamp::light, !random.oneIn(3)); break;
        case 4: member->isRegisteredNotifieeIs(random.oneIn(2)); break;
        case 5: {
            bool const zombie = random.oneIn(8);
            member->zombie |= zombie; // once and for all
            member->moxDoZombieReactors(zombie);
        }
        }
        if (!member->isInTheList())
            tickets.erase(std::exchange(member->ticket, 0));
        else if (member->ticket == 0)
            tickets[member->ticket = ++lastTicket] = member.ptr();
    }

    TestSupport::Random random;
    Ptr<Lamp> const lamp = new Lamp;
    std::array<Ptr<Member>, 8> members;
    std::map<std::size_t, Member*> tickets;
    std::size_t lastTicket = 0;
    std::vector<Frame> frames;
    std::size_t made = 0;
    std::string thrown, caught;
};

TEST(RandomWalks, TellWhomTheModelTells) {
    RandomWalks program;
    Mox::TraceHandle& trace = Mox::TraceHandle::traceHandle("Mox");
    trace.sinkIs([&](Mox::TraceRecord const& r) { program.caught += std::string(r.text) + ' '; });
    for (std::size_t left = TestSupport::operations(100'000); left > 0 && !HasFailure(); --left) {
        program.change();
        program.walk();
        EXPECT_EQ(std::exchange(program.thrown, ""), std::exchange(program.caught, ""));
    }
    trace.sinkIs(nullptr);
}

} // namespace
