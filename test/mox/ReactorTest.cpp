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
        {"removes the one told before", [](T& t) { t.leave('a'); }, "abcd", "bcd"},
        {"removes the next", [](T& t) { t.leave('c'); }, "abd", "abd"},
        {"removes the last", [](T& t) { t.leave('d'); }, "abc", "abc"},
        {"removes all that follow", [](T& t) { t.leave('d'), t.leave('c'); }, "ab", "ab"},
        {"destroys itself", [](T& t) { t.watchers.erase('b'); }, "abcd", "acd"},
        {"destroys the next", [](T& t) { t.watchers.erase('c'); }, "abd", "abd"},
        {"destroys the last", [](T& t) { t.watchers.erase('d'); }, "abc", "abc"},
        {"destroys all", [](T& t) { t.watchers.clear(); }, "ab", ""},
        {"mutes the next", [](T& t) { t.mute('c'); }, "abd", "abd"},
        {"makes the next a zombie", [](T& t) { t.at('c').moxDoZombieReactors(true); }, "abd", "abd"},
        {"unregisters the next", [](T& t) { t.at('c').isRegisteredNotifieeIs(false); }, "abd", "abd"},
        {"switches the next off", [](T& t) { t.at('c').notificationActiveIs(Lamp::light, false); }, "abd",
         "abd"},
        {"adds one", [](T& t) { t.add('e'); }, "abcd", "abcde"},
        {"comes back", [](T& t) { t.leave('b'), t.comeBack('b'); }, "abcd", "acdb"},
        {"calls the next back", [](T& t) { t.leave('c'), t.comeBack('c'); }, "abd", "abdc"},
        {"calls the last back", [](T& t) { t.mute('d'), t.mute('d', false); }, "abc", "abcd"},
        {"adds one and removes the last", [](T& t) { t.add('e'), t.leave('d'); }, "abc", "abce"},
        {"removes all that follow and adds one", [](T& t) { t.leave('c'), t.leave('d'), t.add('e'); }, "ab",
         "abe"},
        {"walks within", [](T& t) { t.lamp->lightUp(); }, "ababcdcd", "abcd"},
        {"adds one and walks within", [](T& t) { t.add('e'), t.lamp->lightUp(); }, "ababcdecd", "abcde"},
        {"removes the next in a walk within",
         [](T& t) { t.at('b').then = [&t] { t.leave('c'); }, t.lamp->lightUp(); }, "ababdd", "abd"},
        {"tells something else within", [](T& t) { t.lamp->heatUp(); }, "abABCDcd", "abcd"},
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

TEST_F(ReactorTest, ZombieIsMutedForGood) {
    at('b').moxDoZombieReactors(true);
    at('b').moxDoZombieReactors(false);
    mute('b', false);
    comeBack('b');
    EXPECT_EQ("acd", walk());
}

TEST_F(ReactorTest, UnregisteredOneKeepsItsNotifierAndMayRegisterAgain) {
    at('a').isRegisteredNotifieeIs(false);
    EXPECT_EQ(lamp, at('a').notifier());
    EXPECT_EQ("bcd", walk());
    at('a').isRegisteredNotifieeIs(true);
    EXPECT_EQ("bcda", walk());
}

TEST_F(ReactorTest, EachNotificationHasASwitchOfItsOwn) {
    at('b').notificationActiveIs(Lamp::light, false);
    at('c').notificationActiveIs(Lamp::heat, false);
    lamp->lightUp();
    lamp->heatUp();
    EXPECT_EQ("acdABD", told);
}

TEST_F(ReactorTest, WhatACallbackThrowsGoesToItsOwnHandlerAndTheWalkGoesOn) {
    at('b').then = [] { throw Mox::RangeException("too bright"); };
    EXPECT_EQ("abcd", walk());
    EXPECT_THROW(std::rethrow_exception(at('b').handled), Mox::RangeException);
}

TEST_F(ReactorTest, WhatNobodyHandlesIsTraced) {
    std::vector<std::string> traced;
    Mox::TraceHandle& handle = Mox::TraceHandle::traceHandle("Mox");
    handle.sinkIs([&](Mox::TraceRecord const& r) {
        traced.push_back(std::to_string(r.level) + ' ' + std::string(r.text));
    });
    at('a').handles = false;
    at('a').then = [] { throw Mox::RangeException("too bright"); };
    at('b').then = [this] {
        watchers.erase('b');
        throw std::string("gone with its thrower");
    };
    EXPECT_EQ("abcd", walk());
    handle.sinkIs(nullptr);
    ASSERT_EQ(2u, traced.size());
    EXPECT_EQ("0 A reactor threw: too bright", traced[0]);
    EXPECT_EQ("0 A reactor threw: an exception of unknown type", traced[1]);
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
class RandomWalks {
  public:
    RandomWalks() {
        Mox::TraceHandle::traceHandle("Mox").sinkIs([](Mox::TraceRecord const&) {});
        for (auto& member : members_)
            member = new Member(*this);
    }
    ~RandomWalks() { Mox::TraceHandle::traceHandle("Mox").sinkIs(nullptr); }

    void step() {
        change();
        walk();
    }
    std::size_t told() const { return told_; }

  private:
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
        frames_.push_back({0, lastTicket_ + 1});
        lamp_->lightUp();
        auto const left = tickets_.lower_bound(frames_.back().next);
        EXPECT_TRUE(left == tickets_.end() || left->first >= frames_.back().end) << "somebody was not told";
        frames_.pop_back();
    }
    void tell(Member& member) {
        ++told_;
        auto const next = tickets_.lower_bound(frames_.back().next);
        ASSERT_TRUE(next != tickets_.end() && next->first < frames_.back().end);
        ASSERT_EQ(&member, next->second);
        frames_.back().next = next->first + 1;
        for (std::size_t changes = random_.below(3); changes > 0; --changes)
            change();
        if (frames_.size() < 4 && random_.oneIn(6))
            walk();
        if (random_.oneIn(10))
            throw Mox::RangeException("a reactor failed");
    }
    void change() {
        Ptr<Member>& member = members_[random_.below(members_.size())];
        switch (random_.below(5)) {
        case 0: tickets_.erase(member->ticket), member = new Member(*this); break;
        case 1: tickets_.erase(member->ticket), member->ticket = 0, member->notifierIs(lamp_); break;
        case 2: member->notifierIs(nullptr); break;
        case 3: member->hasNotificationActiveIs(random_.oneIn(2)); break;
        case 4: member->isRegisteredNotifieeIs(random_.oneIn(2)); break;
        }
        if (member->isInTheList() && member->ticket == 0)
            tickets_[member->ticket = ++lastTicket_] = member.ptr();
        else if (!member->isInTheList())
            tickets_.erase(std::exchange(member->ticket, 0));
    }

    TestSupport::Random random_;
    Ptr<Lamp> const lamp_ = new Lamp;
    std::array<Ptr<Member>, 8> members_;
    std::map<std::size_t, Member*> tickets_;
    std::size_t lastTicket_ = 0;
    std::vector<Frame> frames_;
    std::size_t told_ = 0;
};

TEST(RandomWalks, TellWhomTheModelTells) {
    RandomWalks program;
    for (std::size_t step = 0; step < TestSupport::operations(100'000) && !testing::Test::HasFailure();
         ++step)
        program.step();
    EXPECT_GT(program.told(), TestSupport::operations(100'000));
}

} // namespace
