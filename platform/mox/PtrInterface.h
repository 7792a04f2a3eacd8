#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>

#ifdef MOX_THREAD_SAFE_PTR
#include <atomic>
#endif

namespace Mox {

class Type;

/// Base of every entity: the count that Mox::Ptr keeps, and what the framework asks of all entities.
///
/// Derive from it what is shared, told about by reactors, or reached by name; not plain values.
///
/// Thread rule: an entity belongs to one thread; its count is a plain integer unless the libraries are built
/// with MOX_THREAD_SAFE_PTR.
///
/// Lifetime: an entity starts with no reference, so its constructor makes no Ptr to it. When the count falls
/// to zero it is pinned and `zeroReferencesIs(true)` runs once, with the object whole; its default deletes.
/// A Ptr made while the entity dies neither revives it nor destroys it twice, and must be gone when the
/// destructor ends.
class MOX_EXPORT PtrInterface {
  public:
    PtrInterface(PtrInterface const&) = delete;
    PtrInterface& operator=(PtrInterface const&) = delete;

    /// Switches notification: an entity that is off tells no reactor, a reactor that is off is not told.
    /// Entities start switched off and are switched on by their factory; reactors start switched on.
    virtual void hasNotificationActiveIs(bool active);

    /// How many invariants do not hold in this entity and in all that it holds. Level 0 looks at what is
    /// constant in cost, 1 and above also walks collections.
    virtual U32 moxAuditErrors(U32 level) const;
    /// The same for this entity alone.
    virtual U32 auditErrors(U32 level) const;

    /// The last reference is gone; the object is still whole. Overrides end by calling their base's.
    virtual void zeroReferencesIs(bool zero);

    virtual Type const* fwkType() const;

    virtual ~PtrInterface();

    bool hasNotificationActive() const { return hasNotificationActive_; }
    U32 references() const { return references_ & ~pinned; }

    static Type const& type();

  protected:
    PtrInterface() = default;

    /// True once the last reference has gone.
    bool dying() const { return (references_ & pinned) != 0; }

  private:
    friend void intrusive_ptr_add_ref(PtrInterface const* entity) noexcept { ++entity->references_; }
    friend void intrusive_ptr_release(PtrInterface const* entity) noexcept {
        if (--entity->references_ == 0)
            entity->lastReferenceGone();
    }
    void lastReferenceGone() const noexcept;

    // A dying entity counts above this mark, so that no Ptr made meanwhile reaches zero again.
    static constexpr U32 pinned = 0x80000000u;

#ifdef MOX_THREAD_SAFE_PTR
    mutable std::atomic<U32> references_ = 0;
#else
    mutable U32 references_ = 0;
#endif

  protected: // behind the count, so that flags of derived classes fit in the same word
    bool hasNotificationActive_ : 1 = false;
    bool zombieReactors_ : 1 = false;
};

} // namespace Mox
