// Timer code under test, driven by a virtual day. See docs/virtual-time.md.

#include <mox/ActivityManager.h>
#include <mox/VirtualClock.h>
#include <scheduler/TaskSchedulerMoxActivity.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <vector>

using Mox::Seconds;

/// The code under test: renews a lease at half its time. When the server gives no answer, it asks again after
/// 1, 2, 4 ... and at last every 60 seconds. It knows nothing of virtual time.
class LeaseKeeper : public Kel::TimerTask::Notifiee {
  public:
    static constexpr Seconds lease = 3600.0;

    LeaseKeeper(Mox::Ptr<Kel::TaskScheduler> const& scheduler, std::function<bool()> askServer)
        : askServer_(std::move(askServer)) {
        notifierIs(Kel::TimerTask::TimerTaskIs(scheduler, Kel::TaskPriority::normal, "lease"));
        notifier()->scheduleTask();
    }

    void onTaskRun() override {
        if (askServer_()) {
            retry_ = 1.0;
            notifier()->scheduleTaskDelay(lease / 2);
        } else {
            notifier()->scheduleTaskDelay(retry_);
            retry_ = std::min(2 * retry_, 60.0);
        }
    }

  private:
    std::function<bool()> const askServer_;
    Seconds retry_ = 1.0;
};

/// The test's server: out of order for ten minutes at noon.
struct Server {
    bool ask() {
        Seconds const now = Mox::now();
        if (now >= 43200.0 && now < 43800.0) {
            ++unanswered;
            return false;
        }
        renewals.push_back(now);
        return true;
    }
    Seconds longestGap() const {
        Seconds longest = 0.0;
        for (std::size_t i = 1; i < renewals.size(); ++i)
            longest = std::max(longest, renewals[i] - renewals[i - 1]);
        return longest;
    }

    std::vector<Seconds> renewals;
    int unanswered = 0;
};

int main() {
    // First the clock, then the root: timers go by the clock that they find.
    auto const manager = Mox::activityManager();
    auto const clock = Mox::VirtualClock::VirtualClockIs();
    clock->autoAdvanceIs(true);
    manager->config()->clockIs(clock);
    auto const root = Kel::TaskSchedulerMoxActivity::TaskSchedulerMoxActivityIs("root");

    Server server;
    Mox::Ptr<LeaseKeeper> const keeper = new LeaseKeeper(root, [&] { return server.ask(); });
    manager->runUntil(86400.0);

    std::cout << server.renewals.size() << " renewals, " << server.unanswered << " requests unanswered, "
              << server.longestGap() << " s the longest gap\n";
    bool const asExpected = server.renewals.size() == 48 && server.unanswered == 15 &&
                            server.longestGap() == 2403.0 && server.longestGap() < LeaseKeeper::lease;
    return asExpected ? 0 : 1;
}
