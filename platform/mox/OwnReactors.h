#pragma once

#include <mox/Reactor.h>

#include <boost/intrusive/list.hpp>

#include <utility>

namespace Mox {

/// The reactors that an entity made for itself: they follow its switch and become zombies with it. The entity
/// has one OwnReactors, classes derived from it add their reactors as members (OwnReactor), and none of them
/// writes out what happens to its own.
class MOX_EXPORT OwnReactors {
  public:
    class Slot;

    OwnReactors() = default;
    OwnReactors(OwnReactors const&) = delete;
    OwnReactors& operator=(OwnReactors const&) = delete;

    /// From the base class's reactors to those of the most derived class.
    void hasNotificationActiveIs(bool active) const;
    /// The other way round: what a derived class added stands on what is below it.
    void moxDoZombieReactors(bool zombie) const;
    /// Nobody refers to the owner any more, and it is still whole. In that order, too.
    void ownerEnds();

  private:
    using Hook = boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
    using Slots = boost::intrusive::list<Slot, boost::intrusive::base_hook<Hook>,
                                         boost::intrusive::constant_time_size<false>>;

    Slots slots_;
};

/// A place for one reactor.
class MOX_EXPORT OwnReactors::Slot : public Hook {
  public:
    explicit Slot(OwnReactors& reactors) { reactors.slots_.push_back(*this); }
    Slot(Slot const&) = delete;
    Slot& operator=(Slot const&) = delete;

    virtual ~Slot() = default;

  private:
    friend class OwnReactors;
    virtual Reactor* reactor() const = 0;
    virtual void ownerEnds() {}
};

/// A reactor of the given base that an Owner made for itself; it refers to the owner, and does not hold it.
template <class Base, class Owner> class OwnedReactor : public Base {
  public:
    /// The owner is told until null is given.
    void ownerIs(Owner* owner) { owner_ = owner; }

  protected:
    Owner* owner() const { return owner_; }

  private:
    Owner* owner_ = nullptr;
};

/// The member that holds one of an entity's own reactors, or none. R is an OwnedReactor.
///
/// Lifetime: the reactor may be held by others and outlive its owner, whom it does not tell any more then.
template <class R> class OwnReactor : public OwnReactors::Slot {
  public:
    using Slot::Slot;
    ~OwnReactor() override { drop(); }

    Ptr<R> const& ptr() const { return reactor_; }
    R* operator->() const { return reactor_.ptr(); }
    explicit operator bool() const { return reactor_ != nullptr; }

    /// The reactor, made for that owner when there is none.
    template <class Owner> Ptr<R> const& madeFor(Owner* owner) {
        if (!reactor_)
            ptrIs(newFor(owner));
        return reactor_;
    }
    /// One that is not held here yet.
    template <class Owner> static Ptr<R> newFor(Owner* owner) {
        Ptr<R> const reactor = new R;
        reactor->moxFwkActivityIs(owner->moxFwkActivity());
        reactor->ownerIs(owner);
        return reactor;
    }
    void ptrIs(Ptr<R> const& reactor) { reactor_ = reactor; }

    /// Lets the reactor go, mute for good and without its owner, and returns it. The member is empty before
    /// anything else happens: letting go may run foreign code.
    Ptr<R> drop() {
        Ptr<R> const dropped = std::exchange(reactor_, nullptr);
        if (dropped) {
            dropped->moxDoZombieReactors(true);
            dropped->ownerIs(nullptr);
        }
        return dropped;
    }

  private:
    Reactor* reactor() const override { return reactor_.ptr(); }

    Ptr<R> reactor_;
};

} // namespace Mox
