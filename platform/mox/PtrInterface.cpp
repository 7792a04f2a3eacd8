#define MOX_SOURCE_NAME "PtrInterface"
#include <mox/PtrInterface.h>

#include <mox/Assert.h>
#include <mox/Type.h>

namespace Mox {

MOX_DEFINE_TYPE(PtrInterface, "Mox::PtrInterface", nullptr)

void PtrInterface::hasNotificationActiveIs(bool active) { hasNotificationActive_ = active; }

U32 PtrInterface::moxAuditErrors(U32 level) const { return auditErrors(level); }

U32 PtrInterface::auditErrors(U32) const { return dying() ? 1 : 0; }

void PtrInterface::zeroReferencesIs(bool zero) {
    if (zero)
        delete this;
}

PtrInterface::~PtrInterface() { MOX_ASSERT_AS("references() == 0", references() == 0); }

void PtrInterface::lastReferenceGone() const noexcept {
    references_ = pinned;
    const_cast<PtrInterface*>(this)->zeroReferencesIs(true);
}

} // namespace Mox
