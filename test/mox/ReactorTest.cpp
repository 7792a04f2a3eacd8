#include <mox/Exception.h>
#include <mox/ReactorList.h>
#include <mox/TraceHandle.h>

#include <support/Random.h>

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <functional>
#include <map>
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

    explicit Lamp(std::function<void()> atEnd = {}) : atEnd_(std::move(atEnd)) {}
    ~Lamp() override {
        if (atEnd_)
            atEnd_();
    }
    void lightUp() const { reactors_.notify<light>(); }
    void heatUp() const { reactors_.notify<heat>(); }
    Mox::ReactorChain* moxReactors() const { return &reactors_; }

  protected:
    mutable Mox::ReactorList<NotifieeConst> reactors_;

  private:
    std::function<void()> const atEnd_;
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

/// Writes its name down when told, then does what the test wants, once.
class Watcher : public Lamp::Notifiee {
  public:
    Watcher(char name, std::string& told, Ptr<Lamp> const& lamp) : name_(name), told_(told) {
        notifierIs(lamp);
    }
    void onLight() override {
        told_ += name_;
        if (then)
            std::exchange(then, nullptr)();
    }
    void onHeat() override { told_ += static_cast<char>(std::toupper(name_)); }
    void onException(std::exception_ptr thrown) noexcept override {
        handled = thrown;
        if (!handles)
            Reactor::onException(thrown);
    }

    std::function<void()> then;
    std::exception_ptr handled;
    bool handles = true;

  private:
    char const name_;
    std::string& told_;
};

/// Four watchers, a to d, of one lamp.
struct ReactorTest : testing::Test {
    ReactorTest() { reset(); }

    void reset() {
        watchers.clear();
        for (char name : {'a', 'b', 'c', 'd'})
            add(name);
    }
    Watcher& at(char name) { return *watchers.at(name); }
    void add(char name) { watchers[name] = new Watcher(name, told, lamp); }
    void leave(char name) { at(name).notifierIs(nullptr); }
    void comeBack(char name) { at(name).notifierIs(lamp); }
    void mute(char name, bool muted = true) { at(name).hasNotificationActiveIs(!muted); }
    void zombie(char name) {
        for (bool const zombie : {true, false}) // the second changes nothing: once and for all
            at(name).moxDoZombieReactors(zombie);
    }
    std::string walk() {
        told.clear();
        lamp->lightUp();
        return told;
    }

    std::string told;
    Ptr<Lamp> lamp = new Lamp;
    std::map<char, Ptr<Watcher>> watchers;
};

// What b does in its callback decides who else is told in this walk, and in the next one.
TEST_F(ReactorTest, WalkTellsItsSnapshotWithoutThoseThatLeft) {
    using T = ReactorTest;
    struct {
        char const* what;
        void (*then)(T&);
        char const* thisWalk;
        char const* nextWalk;
    } const cases[] = {
        {"leaves", [](T& t) { t.leave('b'); }, "abcd", "acd"},
        {"removes the next", [](T& t) { t.leave('c'); }, "abd", "abd"},
        {"removes all that follow", [](T& t) { t.leave('d'), t.leave('c'); }, "ab", "ab"},
        {"destroys itself", [](T& t) { t.watchers.erase('b'); }, "abcd", "acd"},
        {"destroys the last", [](T& t) { t.watchers.erase('d'); }, "abc", "abc"},
        {"makes the next a zombie", [](T& t) { t.zombie('c'), t.mute('c', false); }, "abd", "abd"},
        {"adds one", [](T& t) { t.add('e'); }, "abcd", "abcde"},
        {"comes back", [](T& t) { t.leave('b'), t.comeBack('b'); }, "abcd", "acdb"},
        {"calls the last back", [](T& t) { t.mute('d'), t.mute('d', false); }, "abc", "abcd"},
        {"adds one and walks within", [](T& t) { t.add('e'), t.lamp->lightUp(); }, "ababcdecd", "abcde"},
        {"tells something else within", [](T& t) { t.lamp->heatUp(); }, "abABCDcd", "abcd"},
        {"switches the next off this notification",
         [](T& t) { t.at('c').notificationActiveIs(Lamp::light, false), t.lamp->heatUp(); }, "abABCDd",
         "abd"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string("b ") + c.what);
        reset();
        at('b').then = [&] { c.then(*this); };
        EXPECT_EQ(c.thisWalk, walk());
        EXPECT_EQ(c.nextWalk, walk());
    }
}

TEST_F(ReactorTest, NotifierDestroyedInACallbackEndsTheWalk) {
    std::string& log = told;
    lamp = new Lamp([&log] { log += '!'; });
    reset();
    at('b').then = [this] {
        lamp = nullptr;
        EXPECT_EQ("ab", told) << "attached reactors keep their notifier";
        watchers.clear();
    };
    lamp->lightUp();
    EXPECT_EQ("ab!", told);
}

TEST_F(ReactorTest, WhatACallbackThrowsGoesToItsHandlerOrToTheTraceAndTheWalkGoesOn) {
    std::string traced;
    Mox::TraceHandle& handle = Mox::TraceHandle::traceHandle("Mox");
    handle.sinkIs(
        [&](Mox::TraceRecord const& r) { traced += std::to_string(r.level) + std::string(r.text) + ';'; });
    at('a').then = [] { throw Mox::RangeException("too bright"); };
    at('b').then = [this] { at('b').handles = false, throw Mox::RangeException("too dark"); };
    at('c').then = [this] {
        watchers.erase('c');
        throw std::string("gone with its thrower");
    };
    EXPECT_EQ("abcd", walk());
    handle.sinkIs(nullptr);
    EXPECT_THROW(std::rethrow_exception(at('a').handled), Mox::RangeException);
    EXPECT_EQ("0A reactor threw: too dark;0A reactor threw: an exception of unknown type;", traced);
}

TEST(DerivedReactor, HearsBothTypesWhileAPlainOneHearsItsOwn) {
    struct Both : ColouredLamp::NotifieeConst {
        explicit Both(std::string& log) : told(log) {}
        void onLight() override { told += 'l'; }
        void onColour() override { told += 'c'; }
        std::string& told;
    };
    std::string told;
    Ptr<ColouredLamp> const lamp = new ColouredLamp;
    Ptr<Watcher> const plain = new Watcher('p', told, lamp);
    Ptr<Both> const both = new Both(told);
    both->notifierIs(lamp);
    lamp->lightUp();
    lamp->colourIs();
    EXPECT_EQ("plc", told);

    both->Lamp::NotifieeConst::notifierIs(new Lamp); // a plain lamp will do, but is no coloured one
    EXPECT_EQ(nullptr, both->notifier());
    both->Lamp::NotifieeConst::notifier()->lightUp();
    EXPECT_EQ("plcl", told);
}

/// A random program of walks, nested ones too, whose callbacks change the list, against a model: each joining
/// draws a ticket, and a walk tells the tickets drawn before it that are still good.
struct RandomWalks {
    struct Member : Lamp::Notifiee {
        explicit Member(RandomWalks& owner) : program(owner) {}
        void onLight() override { program.tell(*this); }
        void onException(std::exception_ptr) noexcept override {}
        bool isInTheList() const { return notifier() && hasNotificationActive() && isRegisteredNotifiee(); }

        RandomWalks& program;
        std::size_t ticket = 0;
    };
    struct Frame {
        std::size_t next, end;
    };

    void walk() {
        frames.push_back({0, lastTicket + 1});
        lamp->lightUp();
        auto const left = tickets.lower_bound(frames.back().next);
        EXPECT_TRUE(left == tickets.end() || left->first >= frames.back().end) << "somebody was not told";
        frames.pop_back();
    }
    void tell(Member& member) {
        auto const next = tickets.lower_bound(frames.back().next);
        ASSERT_TRUE(next != tickets.end() && next->first < frames.back().end);
        ASSERT_EQ(&member, next->second);
        frames.back().next = next->first + 1;
        for (std::size_t changes = random.below(3); changes > 0; --changes)
            change();
        if (frames.size() < 4 && random.oneIn(6))
            walk();
        if (random.oneIn(10))
            throw Mox::RangeException("a reactor failed"); // perhaps one that is gone
    }
    void change() {
        Ptr<Member>& member = members[random.below(members.size())];
        switch (member ? random.below(5) : 0) {
        case 0: tickets.erase(member ? member->ticket : 0), member = new Member(*this); break;
        case 1: tickets.erase(std::exchange(member->ticket, 0)), member->notifierIs(lamp); break;
        case 2: member->notifierIs(nullptr); break;
        case 3: member->hasNotificationActiveIs(random.oneIn(2)); break;
        case 4: member->isRegisteredNotifieeIs(random.oneIn(2)); break;
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
};

TEST(RandomWalks, TellWhomTheModelTells) {
    RandomWalks program;
    Mox::TraceHandle::traceHandle("Mox").sinkIs([](Mox::TraceRecord const&) {});
    for (std::size_t left = TestSupport::operations(100'000); left > 0 && !HasFailure(); --left) {
        program.change();
        program.walk();
    }
    Mox::TraceHandle::traceHandle("Mox").sinkIs(nullptr);
}

} // namespace
