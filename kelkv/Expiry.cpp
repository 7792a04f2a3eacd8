#include "Expiry.h"

#include "Store.h"

namespace KelKv {

Expiry::Expiry(Store& store, Mox::Ptr<Kel::TaskScheduler> const& scheduler, std::string_view key)
    : store_(store), key_(key),
      task_(Kel::TimerTask::TimerTaskIs(scheduler, Kel::TaskPriority::low, "expiry")) {
    notifierIs(task_);
}

void Expiry::delayIs(Mox::Seconds delay) { task_->scheduleTaskJitterUp(delay, jitterPercentage); }

void Expiry::onTaskRun() { store_.expire(key_, *this); }

} // namespace KelKv
