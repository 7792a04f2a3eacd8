#pragma once

#include <mox/Clock.h>
#include <scheduler/TaskSchedulerRoot.h>

namespace Kel {

/// The root for a process whose loop is the activity manager's: each request asks the manager's clock for an
/// alarm at time zero, which comes at the next turn and runs one pass. The timer wheel is on the same clock,
/// so that a test clock installed in the activity manager before drives both.
///
/// Thread rule: made on the activity manager's thread, which becomes the scheduler thread. Lifetime: it holds
/// clock and loop; once it is released no call reaches it any more.
class MOX_EXPORT TaskSchedulerMoxActivity : public TaskSchedulerRoot {
  public:
    class MoxClock;

    static Mox::Ptr<TaskSchedulerMoxActivity> TaskSchedulerMoxActivityIs(Mox::String8 const& name);
    explicit TaskSchedulerMoxActivity(Mox::String8 const& name);

    Mox::Type const* fwkType() const override;
    ~TaskSchedulerMoxActivity() override;
    /// Has a pass run at the next turn; several requests before it collapse into one.
    void requestSchedulerRun() override;

    Mox::Ptr<MoxClock> const& clock() const { return clock_.ptr(); }
    /// Makes the reactor on the clock, or moves it there.
    void clockIs(Mox::Ptr<Mox::Clock const> const& clock);
    void clockDel();

    static Mox::Type const& type();

  private:
    void handleInitialized();

    Mox::OwnReactor<MoxClock> clock_{ownReactors_};
};

/// The root's reactor on the framework's clock.
class MOX_EXPORT TaskSchedulerMoxActivity::MoxClock
    : public Mox::OwnedReactor<Mox::Clock::NotifieeConst, TaskSchedulerMoxActivity> {
  public:
    /// The root is told until null is given.
    void taskSchedulerMoxActivityIs(TaskSchedulerMoxActivity* root) { ownerIs(root); }
    void onTime() override;
};

MOX_EXPORT Mox::Ptr<TaskSchedulerMoxActivity> taskSchedulerMoxActivityFactory(Mox::String8 const& name);

} // namespace Kel
