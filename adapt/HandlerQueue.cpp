#define MOX_SOURCE_NAME "HandlerQueue"
#include <adapt/HandlerQueue.h>

#include <mox/Assert.h>

namespace Kel {

HandlerQueue::HandlerQueue(Task* task, boost::asio::io_context& ioContext)
    : task_(task), ioContext_(ioContext) {}

HandlerQueue::~HandlerQueue() { MOX_ASSERT(handlers_.empty()); }

void HandlerQueue::appendHandler(Handler& handler) {
    handlers_.push_back(handler);
    if (!isRunning())
        task_->scheduleTask();
}

void HandlerQueue::callFirst() {
    Handler& first = handlers_.front();
    handlers_.pop_front();
    first.call();
}

/// One run, however it ends: counts the handlers as the task's work, and has the task run again for the rest.
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
    Mox::Ptr<HandlerQueue> const queue_; // a handler may let all others go
    Mox::U64 called_ = 0;
};

void HandlerQueue::run() {
    Run run(*this);
    while (!handlers_.empty()) {
        run.callFirst();
        if (!task_ || task_->taskShouldYield())
            return;
    }
}

void HandlerQueue::close() {
    task_ = nullptr;
    while (!handlers_.empty()) { // destroying one may bring others, which are destroyed as they come
        Handler& first = handlers_.front();
        handlers_.pop_front();
        delete &first;
    }
}

} // namespace Kel
