#pragma once

#include <mox/PtrInterface.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include <type_traits>

namespace Mox {

/// A counted pointer to an entity (or to another type with an intrusive count). Implicit from a plain pointer
/// and from a Ptr to a derived type; `ptr()` gives the plain pointer.
template <class T> class Ptr : public boost::intrusive_ptr<T> {
  public:
    using boost::intrusive_ptr<T>::intrusive_ptr;

    constexpr Ptr() noexcept = default;
    constexpr Ptr(std::nullptr_t) noexcept {}
    template <class U>
        requires std::is_convertible_v<U*, T*> Ptr(Ptr<U> const& other)
    noexcept : boost::intrusive_ptr<T>(other.get()) {}
    template <class U>
        requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
    noexcept : boost::intrusive_ptr<T>(other.detach(), false) {}

    T* ptr() const noexcept { return this->get(); }
};

} // namespace Mox
