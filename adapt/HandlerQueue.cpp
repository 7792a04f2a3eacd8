#define MOX_SOURCE_NAME "HandlerQueue"
#include <adapt/HandlerQueue.h>

#include <mox/Assert.h>

namespace Kel {

HandlerQueue::HandlerQueue(Task* task, boost::asio::io_context& ioContext)
    : task_(task), ioContext_(ioContext) {}

HandlerQueue::~HandlerQueue() { MOX_ASSERT(handlers_.empty()); }

/// A run under way looks at the queue again after each handler, and asks for the next run at its end; only
/// from outside of one the task has to be scheduled.
void HandlerQueue::appendHandler(Handler& handler) {
    handlers_.push_back(handler);
    if (!isRunning())
        task_->scheduleTask();
}

/// The handler leaves the queue before it is called: it may append, turn the loop, or close the queue, which
/// destroys all that is in it.
void HandlerQueue::callFirst() {
    Handler& first = handlers_.front();
    handlers_.pop_front();
    first.call();
}

/// One run, however it ends: counts the handlers as the task's work, and has the task run again for the rest.
///
/// It holds the queue, as a handler may let the task and every executor go. Counting tells reactors, which
/// may close the queue in turn; so whether there is still a task is asked again before it is scheduled.
class HandlerQueue::Run {
  public:
    explicit Run(HandlerQueue& queue) : queue_(&queue) { ++queue.depth_; }
    ~Run() {
        --queue_->depth_;
        if (Mox::Ptr<Task> const task = queue_->task_) {
            task->taskWorkCountInc(called_);
            if (queue_->task_ && !queue_->handlers_.empty())
                task->scheduleTask();
        }
    }
    Run(Run const&) = delete;
    Run& operator=(Run const&) = delete;

    void callFirst() {
        ++called_;
        queue_->callFirst();
    }

  private:
    Mox::Ptr<HandlerQueue> const queue_;
    Mox::U64 called_ = 0;
};

/// At least one handler is called, so that a task that is asked to yield at once still gets on.
void HandlerQueue::run() {
    Run run(*this);
    while (!handlers_.empty()) {
        run.callFirst();
        if (!task_ || task_->taskShouldYield())
            return;
    }
}

/// The task is forgotten first, so that what is appended from here on is destroyed as it comes; one by one,
/// since destroying a handler may do just that.
void HandlerQueue::close() {
    task_ = nullptr;
    while (!handlers_.empty()) {
        Handler& first = handlers_.front();
        handlers_.pop_front();
        delete &first;
    }
}

} // namespace Kel
