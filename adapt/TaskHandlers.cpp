#define MOX_SOURCE_NAME "TaskHandlers"
#include <adapt/TaskHandlers.h>

#include <mox/Assert.h>
#include <mox/Type.h>

namespace Kel {

MOX_DEFINE_TYPE(TaskHandlers, "Kel::TaskHandlers", &Mox::PtrInterface::type())

Mox::Ptr<TaskHandlers> TaskHandlers::TaskHandlersIs(Mox::Ptr<Task> const& task,
                                                    Mox::Ptr<EventLoop> const& evLoop) {
    MOX_ASSERT(task);
    MOX_ASSERT(evLoop);
    Mox::Ptr<TaskHandlers> handlers = new TaskHandlers(task, evLoop);
    handlers->hasNotificationActiveIs(true);
    return handlers;
}

/// The reactor knows the queue by a plain pointer: it goes with this object, which holds the queue longer.
TaskHandlers::TaskHandlers(Mox::Ptr<Task> const& task, Mox::Ptr<EventLoop> const& evLoop)
    : evLoop_(evLoop), task_(task), queue_(new HandlerQueue(task.ptr(), evLoop->ioContext())),
      runs_(onTaskRun(task_, [queue = queue_.ptr()] { queue->run(); })) {}

/// Closed, not only let go: executors, of which sockets and suspended coroutines have copies, still hold the
/// queue, and the handlers in it may hold those.
TaskHandlers::~TaskHandlers() { queue_->close(); }

} // namespace Kel
