#pragma once

#include <task/TimerTask.h>

#include <string>
#include <string_view>

namespace KelKv {

class Store;

/// The end of a key's life: a timer task of its own, which erases the key.
///
/// It falls up to 5 % late, at random, so that keys that were written together do not all fall in one tick;
/// never early. The key is gone when its time has come all the same: who looks for it is told so.
///
/// Lifetime: the key's value holds it. A value that was flushed may still hold one; it finds itself replaced
/// then.
class Expiry : public Kel::TimerTask::Notifiee {
  public:
    /// The store outlives it.
    Expiry(Store& store, Mox::Ptr<Kel::TaskScheduler> const& scheduler, std::string_view key);

    void delayIs(Mox::Seconds delay);

    void onTaskRun() override;

  private:
    static constexpr Mox::U8 jitterPercentage = 5;

    Store& store_;
    std::string const key_;
    Mox::Ptr<Kel::TimerTask> const task_;
};

} // namespace KelKv
