#define MOX_SOURCE_NAME "Reactor"
#include <mox/Reactor.h>

#include <mox/Assert.h>
#include <mox/ReactorList.h>
#include <mox/TraceHandle.h>
#include <mox/Type.h>

#include <utility>

namespace Mox {

namespace {

std::string describe(std::exception_ptr const& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (std::exception const& e) {
        return e.what();
    } catch (...) {
        return "an exception of unknown type";
    }
}

/// A sink that fails in turn has nobody left to tell, so that ends here.
void traceException(std::exception_ptr const& thrown) noexcept {
    try {
        TraceHandle::traceHandle("Mox").record(0, "Reactor", "onException",
                                               "A reactor threw: " + describe(thrown));
    } catch (...) {
    }
}

} // namespace

MOX_DEFINE_TYPE(Reactor, "Mox::Reactor", &PtrInterface::type())

/// Walks are told last: until the reactor has left its list they repair themselves by its links; from then on
/// what the callback under way throws goes to the trace, since there is no handler any more.
Reactor::~Reactor() {
    attach(nullptr, nullptr);
    Walk::destroyed(this);
}

/// Whoever is not to be told leaves the list instead of being passed over: a walk then visits only those that
/// are told, and one that comes back stands behind the last, out of reach of the walks under way.
void Reactor::hasNotificationActiveIs(bool active) {
    hasNotificationActive_ = active;
    relink();
}

void Reactor::moxDoZombieReactors(bool zombie) {
    zombieReactors_ = zombieReactors_ || zombie;
    relink();
}

void Reactor::isRegisteredNotifieeIs(bool registered) {
    isRegisteredNotifiee_ = registered;
    relink();
}

/// The single switches do not move the reactor in the list: that is the list of all notifications.
void Reactor::notificationActiveIs(U32 notification, bool active) {
    MOX_ASSERT(notification < 32);
    U32 const bit = 1u << notification;
    switches_ = active ? switches_ | bit : switches_ & ~bit;
}

void Reactor::handleNotification(U32) {}

void Reactor::onException(std::exception_ptr thrown) noexcept { traceException(thrown); }

/// The old notifier goes last, when this reactor already belongs to the new one: letting it go may destroy it
/// and much else, and what is called from there finds the reactor in order.
void Reactor::attach(Ptr<PtrInterface const> notifier, ReactorChain* chain) {
    if (next_)
        chain_->remove(this);
    chain_ = chain;
    Ptr<PtrInterface const> const old = std::exchange(notifier_, std::move(notifier));
    relink();
}

/// The one place that says whether a reactor is in the list; every switch only asks for it. A reactor whose
/// standing does not change keeps its place.
void Reactor::relink() {
    bool const linked = next_ != nullptr;
    if (linked == (isTold() && chain_))
        return;
    if (linked)
        chain_->remove(this);
    else
        chain_->append(this);
}

constinit thread_local Walk* Walk::innermost_ = nullptr;

void Walk::failed() noexcept {
    std::exception_ptr thrown = std::current_exception();
    if (current_)
        current_->onException(std::move(thrown));
    else
        traceException(thrown);
}

/// All walks of the thread, not only those of one list: which list a walk is in is not noted, and a reactor
/// is in one list at most, so a walk elsewhere never meets it.
void Walk::repairAll(Reactor const* reactor) {
    for (Walk* walk = innermost_; walk; walk = walk->outer_)
        walk->repair(reactor);
}

/// A snapshot without a copy: the walk keeps the two ends of what is left to tell, and each end that leaves
/// moves inwards. With the last one gone nobody is left, even if others have joined behind it.
void Walk::repair(Reactor const* reactor) {
    if (!next_)
        return;
    if (next_ == reactor)
        next_ = reactor == last_ ? nullptr : reactor->next_;
    else if (last_ == reactor)
        last_ = reactor->previous_;
}

/// A notifier may go in a callback: taking its reactors out one by one ends the walks over them.
ReactorChain::~ReactorChain() {
    while (head_)
        remove(head_);
}

void ReactorChain::append(Reactor* reactor) {
    if (head_) {
        Reactor::Ring::link_before(head_, reactor);
    } else {
        Reactor::Ring::init_header(reactor);
        head_ = reactor;
    }
}

/// The walks look first, while the links still say who stands beside the reactor. A reactor outside any list
/// has null links, which is what linked means everywhere.
void ReactorChain::remove(Reactor* reactor) {
    Walk::left(reactor);
    Reactor* const next = reactor->next_;
    Reactor::Ring::unlink(reactor);
    if (head_ == reactor)
        head_ = next == reactor ? nullptr : next;
    reactor->next_ = nullptr;
    reactor->previous_ = nullptr;
}

} // namespace Mox
