#define MOX_SOURCE_NAME "PtrInterface"
#include <mox/PtrInterface.h>

#include <mox/Assert.h>
#include <mox/Type.h>

namespace Mox {

// The flags, and those that derived classes put behind them, cost no word of their own.
static_assert(sizeof(PtrInterface) == sizeof(void*) + 2 * sizeof(U32));

MOX_DEFINE_TYPE(PtrInterface, "Mox::PtrInterface", nullptr)

void PtrInterface::hasNotificationActiveIs(bool active) { hasNotificationActive_ = active; }

U32 PtrInterface::moxAuditErrors(U32 level) const { return auditErrors(level); }

U32 PtrInterface::auditErrors(U32) const { return dying() ? 1 : 0; }

void PtrInterface::zeroReferencesIs(bool zero) {
    if (zero)
        delete this;
}

/// A reference that outlives its entity points at freed memory, and would be found much later, far from here.
PtrInterface::~PtrInterface() { MOX_ASSERT_AS("references() == 0", references() == 0); }

/// The mark is set before anybody is told, so that references made while the entity dies count above it and
/// do not come to zero a second time.
void PtrInterface::lastReferenceGone() const noexcept {
    references_ = pinned;
    const_cast<PtrInterface*>(this)->zeroReferencesIs(true);
}

} // namespace Mox
