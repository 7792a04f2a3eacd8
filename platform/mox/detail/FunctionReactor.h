#pragma once

#include <mox/Assert.h>
#include <mox/Ptr.h>

#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include <functional>
#include <utility>

namespace Mox {

/// A reactor of the given base that hears one notification and calls a function. A derived class has every
/// callback of the base call(); the switches see to it that only one of them comes.
///
/// The function is destroyed with the reactor, or, when that goes during a call, at the end of the call.
template <class Base> class FunctionReactor : public Base {
  public:
    /// Requires: the function is not empty.
    template <class X>
    FunctionReactor(Ptr<X> const& notifier, U32 notification, std::function<void()> function) {
        MOX_ASSERT_IN("FunctionReactor", "function", function);
        held_ = new Held(std::move(function));
        for (U32 other = 0; other < 32; ++other)
            this->notificationActiveIs(other, other == notification);
        this->notifierIs(notifier);
    }

  protected:
    void call() {
        Ptr<Held> const held = held_; // the function may let this reactor go
        held->function();
    }

  private:
    struct Held : boost::intrusive_ref_counter<Held, boost::thread_unsafe_counter> {
        explicit Held(std::function<void()> f) : function(std::move(f)) {}
        std::function<void()> const function;
    };

    Ptr<Held> held_;
};

} // namespace Mox
