#include <mox/OwnReactors.h>

#include <boost/range/adaptor/reversed.hpp>

namespace Mox {

void OwnReactors::hasNotificationActiveIs(bool active) const {
    for (Slot const& slot : slots_)
        if (Reactor* const reactor = slot.reactor())
            reactor->hasNotificationActiveIs(active);
}

void OwnReactors::moxDoZombieReactors(bool zombie) const {
    for (Slot const& slot : boost::adaptors::reverse(slots_))
        if (Reactor* const reactor = slot.reactor())
            reactor->moxDoZombieReactors(zombie);
}

void OwnReactors::ownerEnds() {
    for (Slot& slot : boost::adaptors::reverse(slots_))
        slot.ownerEnds();
}

} // namespace Mox
