#define MOX_SOURCE_NAME "ActivityManager"
#include <mox/ActivityManager.h>

#include <mox/Assert.h>
#include <mox/RealClock.h>
#include <mox/TurnLoop.h>
#include <mox/Type.h>

namespace Mox {

namespace {

// A plain pointer beside the owner: it can be read while and after the thread's locals are destroyed.
constinit thread_local ActivityManager* current = nullptr;

/// The thread's own reference.
struct Holder {
    Ptr<ActivityManager> manager;
};
thread_local Holder holder;

} // namespace

ActivityManager::Config::Config() : clock_(RealClock::RealClockIs()) {}

void ActivityManager::Config::clockIs(Ptr<Clock> const& clock) {
    clock_ = clock ? clock : Ptr<Clock>(RealClock::RealClockIs());
}

ActivityManager::ActivityManager() : config_(new Config), turnLoop_(std::make_unique<TurnLoop>()) {}

ActivityManager::~ActivityManager() {
    if (current == this)
        current = nullptr;
}

/// This and the other run functions hold the manager, since a callback may let the last other reference go.
void ActivityManager::run() {
    Ptr<ActivityManager> const self = this;
    turnLoop_->run(false);
}

void ActivityManager::runUntil(Seconds time) {
    Ptr<ActivityManager> const self = this;
    turnLoop_->runUntil(time, false);
}

U64 ActivityManager::runOnce() {
    Ptr<ActivityManager> const self = this;
    return turnLoop_->runOnce();
}

void ActivityManager::stop() { turnLoop_->stop(); }

Seconds ActivityManager::nextDue() const { return turnLoop_->nextDue(); }

MOX_DEFINE_TYPE(ActivityManager, "Mox::ActivityManager", &PtrInterface::type())

/// The thread itself holds the first manager only. One that is asked for when the thread's locals are already
/// being destroyed is kept by its users alone: a holder that is gone would never let it go again.
Ptr<ActivityManager> activityManager() {
    if (!current) {
        Ptr<ActivityManager> made = new ActivityManager;
        current = made.ptr();
        static thread_local bool first = true;
        if (std::exchange(first, false))
            holder.manager = made;
        return made;
    }
    return current;
}

Clock const& threadClock() {
    if (!current) [[unlikely]]
        activityManager();
    MOX_ASSERT_AS("the thread's activity manager is in use", current);
    return *current->config()->clock();
}

/// Late in a thread nobody else may hold a manager, so one is held for the reading.
Seconds now() {
    Ptr<ActivityManager> const manager = current ? nullptr : activityManager();
    return threadClock().now();
}

} // namespace Mox
