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

void traceException(std::exception_ptr const& thrown) noexcept {
    try {
        TraceHandle::traceHandle("Mox").record(0, "Reactor", "onException",
                                               "A reactor threw: " + describe(thrown));
    } catch (...) { // a sink that fails has nobody left to tell
    }
}

} // namespace

MOX_DEFINE_TYPE(Reactor, "Mox::Reactor", &PtrInterface::type())

Reactor::~Reactor() {
    attach(nullptr, nullptr);
    Walk::destroyed(this);
}

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

void Reactor::notificationActiveIs(U32 notification, bool active) {
    MOX_ASSERT(notification < 32);
    U32 const bit = 1u << notification;
    switches_ = active ? switches_ | bit : switches_ & ~bit;
}

void Reactor::handleNotification(U32) {}

void Reactor::onException(std::exception_ptr thrown) noexcept { traceException(thrown); }

void Reactor::attach(Ptr<PtrInterface const> notifier, ReactorChain* chain) {
    if (next_)
        chain_->remove(this);
    chain_ = chain;
    // The old notifier goes last: letting it go may destroy it, and much else.
    Ptr<PtrInterface const> const old = std::exchange(notifier_, std::move(notifier));
    relink();
}

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

void Walk::repairAll(Reactor const* reactor) {
    for (Walk* walk = innermost_; walk; walk = walk->outer_)
        walk->repair(reactor);
}

void Walk::repair(Reactor const* reactor) {
    if (!next_)
        return;
    if (next_ == reactor)
        next_ = reactor == last_ ? nullptr : reactor->next_;
    else if (last_ == reactor)
        last_ = reactor->previous_;
}

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
