#pragma once

#include <adapt/Callbacks.h>
#include <adapt/TaskExecutor.h>
#include <kel/EventLoop.h>

namespace Kel {

/// Lets Asio's handlers and coroutines be the work of a task: they wait in a queue, and are called in the
/// task's runs until it should yield; then the task schedules itself again. So they have the task's priority,
/// are measured as its runs, and are counted in its work count.
///
///     auto const handlers = Kel::TaskHandlers::TaskHandlersIs(task, loop);
///     boost::asio::co_spawn(handlers->executor(), session(...), boost::asio::detached);
///
/// For work that comes from no Asio operation, a reactor on the task costs less (<adapt/Callbacks.h>). What a
/// handler throws goes the way of all that reactors throw, and the rest is called in the next run. A handler
/// must not turn the loop until another one of its task is done: that one waits for the next run.
///
/// Thread rule: that of the task. Lifetime: counted; it holds the task and the loop, and no executor holds
/// it. When it goes, handlers that wait are destroyed, and so are those whose operations end later. It goes
/// before an io_context of the application does, on which the loop may live.
class MOX_EXPORT TaskHandlers : public Mox::PtrInterface {
  public:
    /// Requires: a task, and a loop of the task's thread.
    static Mox::Ptr<TaskHandlers> TaskHandlersIs(Mox::Ptr<Task> const& task,
                                                 Mox::Ptr<EventLoop> const& evLoop);
    ~TaskHandlers() override;

    TaskExecutor executor() const { return {queue_, true}; }
    Mox::Ptr<Task> const& task() const { return task_; }

    Mox::Type const* fwkType() const override;
    static Mox::Type const& type();

  private:
    TaskHandlers(Mox::Ptr<Task> const& task, Mox::Ptr<EventLoop> const& evLoop);

    Mox::Ptr<EventLoop> const evLoop_;
    Mox::Ptr<Task> const task_;
    Mox::Ptr<HandlerQueue> const queue_;
    CallbackOn<Task> const runs_;
};

} // namespace Kel
