#include <mox/Exception.h>
#include <mox/ReactorList.h>
#include <mox/TraceHandle.h>

#include <support/Names.h>
#include <support/Random.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace TestSupport;

/// A notifying type.
class Lamp : public PtrInterface {
  public:
    class NotifieeConst;
    using Notifiee = NonConstNotifieeOf<Lamp, NotifieeConst>;
    enum : U32 { light };

    void lightUp() const { reactors_.notify<light>(); }
    ReactorChain* moxReactors() const { return &reactors_; }

  private:
    mutable ReactorList<NotifieeConst> reactors_;
};

class Lamp::NotifieeConst : public NotifieeOf<Lamp> {
  public:
    virtual void onLight() {}
    static constexpr auto callback(U32) { return &NotifieeConst::onLight; }
};

/// Is told, and attached, while its class is not whole yet, or no more.
struct Early : Lamp::Notifiee {
    Early(Ptr<Lamp> const& on, std::string& toldTo) : lamp(on), told(toldTo) {
        notifierIs(lamp);
        lamp->lightUp();
    }
    ~Early() override { lamp->lightUp(); }
    void onLight() override { told += 'e'; }

    Ptr<Lamp> const lamp;
    std::string& told;
};
struct Whole : Early {
    using Early::Early;
    void onLight() override { told += 'w'; }
};
struct WholeBehindAnother : std::string, Whole {
    using Whole::Whole;
    void onLight() override { told += 'b'; }
};

/// A random program of walks, nested ones too, whose callbacks change the list, against a model: each joining
/// draws a ticket, and a walk tells the tickets drawn before it that are still good. What a callback throws
/// goes to its handler, or to the trace when the reactor is gone.
struct RandomWalks {
    struct Member : Lamp::Notifiee {
        explicit Member(RandomWalks& owner) : program(owner) { notifierIs(owner.lamp); }
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
        if (random.oneIn(10)) {
            bool const isThere =
                std::ranges::any_of(members, [&](auto& m) { return m && m->number == number; });
            thrown += (isThere ? std::to_string(number) : "A reactor threw: too dark") + ' ';
            throw RangeException("too dark");
        }
    }
    void change() {
        Ptr<Member>& member = members[random.below(members.size())];
        std::size_t const what = member ? random.below(10) : 9;
        random.doing("change " + std::to_string(what) + " of", static_cast<double>(&member - &members[0]));
        switch (what) {
        case 0: tickets.erase(std::exchange(member->ticket, 0)), member->notifierIs(lamp); break;
        case 1: member->notifierIs(nullptr); break;
        case 2: member->moxDoZombieReactors(member->zombie = true); break;
        case 3: member->moxDoZombieReactors(false); break; // brings none back
        case 4: member->notificationActiveIs(Lamp::light, !random.oneIn(3)); break;
        case 5: member->hasNotificationActiveIs(random.oneIn(2)); break;
        case 6: member->isRegisteredNotifieeIs(random.oneIn(2)); break;
        default: tickets.erase(member ? member->ticket : 0), member = new Member(*this);
        }
        if (!member->isInTheList())
            tickets.erase(std::exchange(member->ticket, 0));
        else if (member->ticket == 0)
            tickets[member->ticket = ++lastTicket] = member.ptr();
    }

    Random random;
    Ptr<Lamp> const lamp = new Lamp;
    std::array<Ptr<Member>, 8> members;
    std::map<std::size_t, Member*> tickets;
    std::size_t lastTicket = 0;
    std::vector<Frame> frames;
    std::size_t made = 0;
    std::string thrown, caught;
};

TEST(Override, IsFoundInEachOfAnObjectsClassesAsItsTurnComes) {
    Ptr<Lamp> const lamp = new Lamp;
    std::string told;
    Ptr<Lamp::Notifiee> const plain = new Lamp::Notifiee;
    for (bool const isAlone : {true, false}) {
        plain->notifierIs(isAlone ? nullptr : lamp);
        Ptr<Early> reactor = new Whole(lamp, told);
        lamp->lightUp();
        reactor = new WholeBehindAnother(lamp, told); // the other one is told, too
        lamp->lightUp();
        reactor = nullptr;
        told += ' ';
    }
    EXPECT_EQ(told, "ewweebbe ewweebbe ");
    using OnLight = Override<Lamp::NotifieeConst, &Lamp::NotifieeConst::onLight>;
    EXPECT_EQ(!OnLight::isKnown, OnLight::isIn(plain.ptr()));
    EXPECT_TRUE(OnLight::isIn(Ptr<Early>(new Whole(lamp, told)).ptr()));
}

TEST(RandomWalks, TellWhomTheModelTells) {
    RandomWalks program;
    TraceHandle& trace = TraceHandle::traceHandle("Mox");
    trace.sinkIs([&](TraceRecord const& r) { program.caught += std::string(r.text) + ' '; });
    for (std::size_t left = operations(100'000); left > 0 && !HasFailure(); --left) {
        program.change();
        program.walk();
        EXPECT_EQ(std::exchange(program.thrown, ""), std::exchange(program.caught, ""));
    }
    trace.sinkIs(nullptr);
}

} // namespace
