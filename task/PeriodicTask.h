#pragma once

#include <task/TimerTask.h>

#include <functional>

namespace Kel {

/// Has a timer task run once a period, without drift and without bunching.
///
/// The runs are due at start, start + period, start + 2 * period ...: a run that comes late delays none of
/// the later ones. Periods that went by meanwhile are skipped and counted, never made up for; a run that is
/// late by nearly a period comes shortly before the next one, which keeps its time. As all timer tasks it
/// runs at the first 10 ms tick not before the due time. A run in between, because somebody scheduled the
/// task, moves no due time; so a function with work left may call `task()->scheduleTask()` and go on in the
/// next run. Taking the task off its queue ends the repetition.
///
/// For a delay that counts from the end of the last run, use a TimerTask alone.
///
/// Thread rule: that of the task. Lifetime: counted; it holds its task, and ends the repetition when it goes,
/// which its function may bring about.
class MOX_EXPORT PeriodicTask : public Mox::PtrInterface {
  public:
    /// Two ticks: with less, the timer's own lateness of a tick would make it miss periods.
    static constexpr Mox::Seconds periodMin = 0.02;

    /// Not started yet. The function may be empty, and the work left to other reactors on the task. Throws
    /// Mox::RangeException for a period that is not finite or below periodMin.
    static Mox::Ptr<PeriodicTask> PeriodicTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                 TaskPriority priority, Mox::String8 const& name,
                                                 Mox::Seconds period, std::function<void()> function);
    ~PeriodicTask() override;

    /// Starts, or starts anew: the first run is due one period from now.
    void start();
    /// The same, with the first run due after the delay; 0 runs at once. Throws Mox::RangeException for a
    /// delay that is not finite or negative.
    void start(Mox::Seconds delay);
    /// What waits to run does not run any more.
    void stop();
    bool started() const { return started_; }

    Mox::Seconds period() const { return period_; }
    /// Throws as PeriodicTaskIs. A started one keeps its latest due time, and the next is the first one in
    /// the future that is a whole number of new periods later. Before the first run, that stays due as
    /// start(delay) has set it.
    void periodIs(Mox::Seconds period);

    /// When the next run is due; endOfTime while stopped.
    Mox::Seconds nextDue() const { return started_ ? dueTime(next_) : Mox::endOfTime; }
    /// Periods that had no run of their own, since the object was made.
    Mox::U64 missed() const { return missed_; }

    /// To set the quantum, and for statistics. Its timer belongs to the repetition.
    Mox::Ptr<TimerTask> const& task() const { return task_; }

    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  private:
    PeriodicTask(Mox::Ptr<TimerTask> task, Mox::Seconds period, std::function<void()> function);

    Mox::Seconds dueTime(Mox::U64 index) const {
        return origin_ + static_cast<Mox::Seconds>(index) * period_;
    }
    Mox::U64 firstAfter(Mox::Seconds now) const;
    /// Of the runs that are due, keeps the latest. False when none is.
    bool skipMissed(Mox::Seconds now);
    /// Counts the periods from the latest due time on; before the first, from that.
    void rebase(Mox::Seconds now);
    void startAt(Mox::Seconds origin, Mox::U64 next);
    void handleRun();
    void arm();

    Mox::Ptr<TimerTask> const task_;
    Mox::Seconds period_;
    bool started_ = false;
    Mox::Seconds origin_ = 0.0;
    Mox::U64 next_ = 0; // the period whose run is to come, counted from the origin
    Mox::U64 missed_ = 0;

    // The first is told first, so that the work finds the timer set and may replace it.
    Mox::Ptr<Task::NotifieeConst> const repetition_;
    Mox::Ptr<Task::NotifieeConst> const work_;
};

} // namespace Kel
