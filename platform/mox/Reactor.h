#pragma once

#include <mox/Activity.h>
#include <mox/Integers.h>
#include <mox/Ptr.h>

#include <boost/intrusive/circular_list_algorithms.hpp>

#include <exception>
#include <typeinfo>

namespace Mox {

class ReactorChain;

/// An entity that is told when another one, its notifier, changes. `X::NotifieeConst` of a notifying type X
/// derives from it (through NotifieeOf, below), adds one callback for each notification, each empty by
/// default, and applications override the callbacks that they need.
///
/// A reactor holds a counted reference to its notifier: an attached reactor keeps the notifier alive. The
/// notifier knows its reactors by plain pointers only, so somebody else has to hold the reactor; a reactor
/// leaves the notifier's list when it is destroyed.
///
/// A reactor is told while it is attached, registered, switched on and not a zombie. A reactor may be
/// removed, destroyed, muted or attached inside any callback, its own included.
class MOX_EXPORT Reactor : public PtrInterface {
  public:
    ~Reactor() override;

    /// Mutes the reactor (false) or lets it be told again, behind the reactors that are told already.
    void hasNotificationActiveIs(bool active) override;
    /// True mutes for good.
    virtual void moxDoZombieReactors(bool zombie);
    bool isZombie() const { return zombieReactors_; }

    /// Takes the reactor off its notifier's list without letting the notifier go (false), or puts it back.
    void isRegisteredNotifieeIs(bool registered);
    bool isRegisteredNotifiee() const { return isRegisteredNotifiee_; }

    /// One switch for each notification, by the number that the notifying type gives it (0 to 31).
    void notificationActiveIs(U32 notification, bool active);
    bool notificationActive(U32 notification) const { return (switches_ >> notification & 1u) != 0; }

    /// Calls the callback of the notification with that number; numbers unknown to the type are ignored.
    virtual void handleNotification(U32 notification);

    /// Gets what a callback of this reactor threw; the notification goes on with the next reactor. The
    /// default writes it to the trace handle "Mox" at level 0.
    virtual void onException(std::exception_ptr thrown) noexcept;

    /// The entity on whose behalf the reactor acts, if its owner says so; carried, never used here.
    Ptr<PtrInterface> const& actsm() const { return actsm_; }
    void actsmIs(Ptr<PtrInterface> const& actsm) { actsm_ = actsm; }

    /// What the reactor belongs to; null is the main activity of the thread.
    Ptr<Activity> const& moxFwkActivity() const { return moxFwkActivity_; }
    void moxFwkActivityIs(Ptr<Activity> const& activity) { moxFwkActivity_ = activity; }

    Type const* fwkType() const override;
    static Type const& type();

  protected:
    Reactor() { hasNotificationActive_ = true; }

    PtrInterface const* rawNotifier() const { return notifier_.ptr(); }
    /// Attaches to a notifier, behind its other reactors, or to none. The chain is the notifier's; null for
    /// notifiers that call their reactors one by one.
    void attach(Ptr<PtrInterface const> notifier, ReactorChain* chain);
    /// The notifier has changed; runs at the end of `notifierIs`.
    virtual void handleNotifier() {}
    bool isTold() const {
        return notifier_ && isRegisteredNotifiee_ && hasNotificationActive_ && !zombieReactors_;
    }

  private:
    friend class ReactorChain;
    friend class Walk;
    struct Node;
    using Ring = boost::intrusive::circular_list_algorithms<Node>;

    void relink();

    bool isRegisteredNotifiee_ = true;
    U32 switches_ = ~0u;
    Ptr<PtrInterface const> notifier_;
    ReactorChain* chain_ = nullptr;
    Reactor* next_ = nullptr; // null outside the chain
    Reactor* previous_ = nullptr;
    Ptr<PtrInterface> actsm_;
    Ptr<Activity> moxFwkActivity_;
};

/// How Boost.Intrusive reaches a reactor's links.
struct Reactor::Node {
    using node = Reactor;
    using node_ptr = Reactor*;
    using const_node_ptr = Reactor const*;
    static node_ptr get_next(const_node_ptr r) { return r->next_; }
    static void set_next(node_ptr r, node_ptr next) { r->next_ = next; }
    static node_ptr get_previous(const_node_ptr r) { return r->previous_; }
    static void set_previous(node_ptr r, node_ptr previous) { r->previous_ = previous; }
};

/// The typed end of a reactor on X. Base is Reactor, or the NotifieeConst of the type that X extends.
template <class X, class Base = Reactor> class NotifieeOf : public Base {
  public:
    void notifierIs(Ptr<X const> const& notifier) {
        // The former notifier goes last: it may own this reactor.
        Ptr<PtrInterface const> const former = this->rawNotifier();
        this->attach(notifier, notifier ? notifier->moxReactors() : nullptr);
        this->handleNotifier();
    }
    Ptr<X const> notifier() const { return typedNotifier(); }

  protected:
    X const* typedNotifier() const {
        if constexpr (std::is_same_v<Base, Reactor>)
            return static_cast<X const*>(this->rawNotifier());
        else // attached through the base's notifierIs, it may react to a plain base
            return isExactly(this->rawNotifier()) ? static_cast<X const*>(this->rawNotifier())
                                                  : dynamic_cast<X const*>(this->rawNotifier());
    }

  private:
    /// As most notifiers are, which takes no search among bases.
    static bool isExactly(PtrInterface const* notifier) { return notifier && typeid(*notifier) == typeid(X); }
};

/// Adds the non-const view of the notifier; Const is the type's NotifieeConst.
template <class X, class Const> class NonConstNotifieeOf : public Const {
  public:
    Ptr<X> notifier() const { return const_cast<X*>(this->typedNotifier()); }
};

} // namespace Mox
