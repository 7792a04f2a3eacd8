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

TaskHandlers::TaskHandlers(Mox::Ptr<Task> const& task, Mox::Ptr<EventLoop> const& evLoop)
    : evLoop_(evLoop), task_(task), queue_(new HandlerQueue(task.ptr(), evLoop->ioContext())),
      runs_(onTaskRun(task_, [queue = queue_.ptr()] { queue->run(); })) {}

TaskHandlers::~TaskHandlers() { queue_->close(); }

} // namespace Kel
