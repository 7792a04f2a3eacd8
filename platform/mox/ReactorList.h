#pragma once

#include <mox/Override.h>
#include <mox/Prefetch.h>
#include <mox/Reactor.h>

#include <type_traits>

namespace Mox {

/// One notification under way: a frame on the stack of the thread. Leaving a list repairs every frame of the
/// thread, so that no reactor that left is called; whoever joins stands behind `last_`.
class MOX_EXPORT Walk {
  public:
    Walk(Reactor* first, Reactor* last) : next_(first), last_(last), outer_(innermost_) { innermost_ = this; }
    /// Calls that one reactor, whatever list it is in.
    explicit Walk(Reactor* only) : current_(only), outer_(innermost_) { innermost_ = this; }
    ~Walk() { innermost_ = outer_; }
    Walk(Walk const&) = delete;
    Walk& operator=(Walk const&) = delete;

    /// The next reactor to call; null at the end.
    Reactor* step() {
        current_ = next_;
        if (current_)
            next_ = current_ == last_ ? nullptr : current_->next_;
        return current_;
    }
    /// Hands the exception being handled to the current reactor's handler, or to the trace when the reactor
    /// is gone by now.
    void failed() noexcept;

    static void left(Reactor const* reactor) {
        if (innermost_) [[unlikely]]
            repairAll(reactor);
    }
    static void destroyed(Reactor const* reactor) {
        for (Walk* walk = innermost_; walk; walk = walk->outer_)
            if (walk->current_ == reactor)
                walk->current_ = nullptr;
    }

  private:
    static void repairAll(Reactor const* reactor);
    void repair(Reactor const* reactor);

    Reactor* next_ = nullptr;
    Reactor* last_; // not set where there is no next one
    Reactor* current_ = nullptr;
    Walk* outer_;

    static constinit thread_local Walk* innermost_ MOX_FAST_TLS;
};

/// The reactors of one notifier: one pointer, to a ring that the reactors' own links form.
class MOX_EXPORT ReactorChain {
  public:
    ReactorChain() = default;
    ReactorChain(ReactorChain const&) = delete;
    ReactorChain& operator=(ReactorChain const&) = delete;
    ~ReactorChain();

    bool empty() const { return !head_; }

    /// Has the caches fetch the first reactor, if there is one, and what the application put behind it.
    void prefetch() const {
        static_assert(sizeof(Reactor) / 2 <= 64, "the addresses leave no line of the cache between them");
        Mox::prefetch(head_);
        Mox::prefetch(head_, sizeof(Reactor) / 2);
        Mox::prefetch(head_, sizeof(Reactor));
    }

  protected:
    Reactor* first() const { return head_; }
    Reactor* last() const { return head_->previous_; }

  private:
    friend class Reactor;
    void append(Reactor* reactor);
    void remove(Reactor* reactor);

    Reactor* head_ = nullptr;
};

/// The list that a notifying type keeps, with R its NotifieeConst. R numbers its notifications and names
/// their callbacks by a static constexpr function `callback(number)`. Its own callbacks are empty: what no
/// class overrides need not be called.
///
/// A walk tells a snapshot: a reactor that was removed, destroyed, muted or made a zombie meanwhile is not
/// called any more; one that joined or came back is not called yet. Walks nest. The notifier itself may be
/// destroyed in a callback: callers touch nothing of it after `notify`.
template <class R> class ReactorList : public ReactorChain {
  public:
    /// Calls `callback(notification)` on every reactor, in the order in which they came.
    template <U32 notification, class Derived = R> void notify() const {
        Reactor* const reactor = first();
        if (!reactor)
            return;
        if (reactor != last())
            tellAll<notification, Derived>(reactor, last());
        else if (cares<notification, Derived>(reactor)) // as with most notifiers: no place in a list to keep
            tellOnly<notification, Derived>(reactor);
    }

    /// Calls one reactor that the notifier keeps track of in its own way.
    template <U32 notification> static void notifyOne(R* reactor) {
        if (reactor->notificationActive(notification))
            tellOnly<notification, R>(reactor);
    }

    /// Whether the notification would be told to that reactor, and to nobody else.
    template <U32 notification> bool isOnly(R const* reactor) const {
        return first() == reactor && last() == reactor && reactor->notificationActive(notification);
    }

  private:
    template <U32 notification, class Derived> static void tellOnly(Reactor* reactor) {
        Walk walk(reactor);
        tell<notification, Derived>(walk, reactor);
    }

    template <U32 notification, class Derived>
    [[gnu::noinline]] static void tellAll(Reactor* first, Reactor* last) {
        Walk walk(first, last);
        while (Reactor* reactor = walk.step())
            if (cares<notification, Derived>(reactor))
                tell<notification, Derived>(walk, reactor);
    }

    /// Most reactors override one callback of many; the others need no call.
    template <U32 notification, class Derived> static bool cares(Reactor const* reactor) {
        if (!reactor->notificationActive(notification))
            return false;
        if constexpr (std::is_same_v<Derived, R>)
            return Override<R, R::callback(notification)>::isIn(static_cast<R const*>(reactor));
        else
            return true;
    }

    template <U32 notification, class Derived> static void tell(Walk& walk, Reactor* reactor) {
        constexpr auto callback = Derived::callback(notification);
        try {
            if constexpr (std::is_same_v<Derived, R>)
                (static_cast<R*>(reactor)->*callback)();
            else if (Derived* derived = dynamic_cast<Derived*>(reactor))
                (derived->*callback)();
        } catch (...) {
            walk.failed();
        }
    }
};

} // namespace Mox
