#define MOX_SOURCE_NAME "PeriodicTask"
#include <task/PeriodicTask.h>

#include <mox/Exception.h>
#include <mox/Type.h>
#include <mox/detail/FunctionReactor.h>
#include <scheduler/TaskScheduler.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace Kel {

using Mox::Seconds;
using Mox::U64;

namespace {

void requireSeconds(char const* what, Seconds seconds, Seconds least) {
    if (!std::isfinite(seconds) || seconds < least)
        throw Mox::RangeException(std::string(what) + " of a periodic task: " + Mox::valueToStrep(seconds) +
                                  " s is not a finite time of at least " + Mox::valueToStrep(least) + " s");
}

struct OnTaskRun final : Mox::FunctionReactor<Task::NotifieeConst> {
    OnTaskRun(Mox::Ptr<TimerTask> const& task, std::function<void()> function)
        : FunctionReactor(task, taskRunChanged, std::move(function)) {}
    void onTaskRun() override { call(); }
};

} // namespace

MOX_DEFINE_TYPE(PeriodicTask, "Kel::PeriodicTask", &Mox::PtrInterface::type())

Mox::Ptr<PeriodicTask> PeriodicTask::PeriodicTaskIs(Mox::Ptr<TaskScheduler> const& scheduler,
                                                    TaskPriority priority, Mox::String8 const& name,
                                                    Seconds period, std::function<void()> function) {
    requireSeconds("The period", period, periodMin);
    Mox::Ptr<PeriodicTask> periodic =
        new PeriodicTask(TimerTask::TimerTaskIs(scheduler, priority, name), period, std::move(function));
    periodic->hasNotificationActiveIs(true);
    return periodic;
}

/// The repetition's reactor attaches before that of the work: it has counted the period and armed the timer
/// when the work begins, so that the work may stop, move or replace the repetition.
PeriodicTask::PeriodicTask(Mox::Ptr<TimerTask> task, Seconds period, std::function<void()> function)
    : task_(std::move(task)), period_(period), repetition_(new OnTaskRun(task_, [this] { handleRun(); })),
      work_(function ? new OnTaskRun(task_, std::move(function)) : nullptr) {}

PeriodicTask::~PeriodicTask() { stop(); }

void PeriodicTask::start() { startAt(Mox::now(), 1); }

void PeriodicTask::start(Seconds delay) {
    requireSeconds("The delay", delay, 0.0);
    startAt(Mox::now() + delay, 0);
}

void PeriodicTask::startAt(Seconds origin, U64 next) {
    origin_ = origin;
    next_ = next;
    started_ = true;
    arm();
}

void PeriodicTask::stop() {
    if (std::exchange(started_, false))
        task_->stopTimerTask();
}

/// A first run that is still to come keeps its time: it was asked for by start(), not by the period.
void PeriodicTask::periodIs(Seconds period) {
    requireSeconds("The period", period, periodMin);
    if (started_)
        rebase(Mox::now());
    period_ = period;
    if (!started_)
        return;
    if (next_ > 0)
        next_ = firstAfter(Mox::now());
    arm();
}

void PeriodicTask::rebase(Seconds now) {
    bool const fromNext = skipMissed(now) || next_ == 0;
    origin_ = dueTime(fromNext ? next_ : next_ - 1);
    next_ = fromNext ? 0 : 1;
}

/// The division is only a first guess: rounding may put it one period off on either side, and what counts is
/// that the due time, computed as everywhere from the origin, lies behind now. Due times are never sums of
/// periods, whose rounding would drift.
U64 PeriodicTask::firstAfter(Seconds now) const {
    auto index = static_cast<U64>(std::max(0.0, std::floor((now - origin_) / period_)));
    while (dueTime(index) <= now)
        ++index;
    return std::max(index, next_);
}

/// The latest of the periods that are due gets this run; the ones before it had none, and are only counted.
bool PeriodicTask::skipMissed(Seconds now) {
    if (now < dueTime(next_))
        return false;
    U64 const latest = firstAfter(now) - 1;
    missed_ += latest - next_;
    next_ = latest;
    return true;
}

/// A run in between, which somebody else asked for, finds nothing due and only arms the timer again:
/// scheduling the task has disarmed it.
void PeriodicTask::handleRun() {
    if (!started_)
        return;
    if (skipMissed(Mox::now()))
        ++next_;
    arm();
}

void PeriodicTask::arm() {
    Seconds const now = Mox::now();
    Seconds const due = dueTime(next_);
    Seconds delay = std::max(0.0, due - now);
    if (now + delay < due) // by rounding, which must not make the run come early
        delay = std::nextafter(delay, Mox::endOfTime);
    task_->scheduleTaskDelay(delay);
}

} // namespace Kel
