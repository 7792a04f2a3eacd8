#include "Connection.h"

namespace KelKv {

Connection::Connection(Mox::Ptr<Kel::TaskScheduler> const& scheduler, Kel::TaskPriority priority,
                       char const* name)
    : task_(Kel::Task::TaskIs(scheduler, priority, name)) {
    notifierIs(task_);
}

void Connection::start(std::function<void()> closed) {
    closed_ = std::move(closed);
    onStart();
}

void Connection::close() {
    if (!task_)
        return;
    Mox::Ptr<Connection> const self = this;
    notifierIs(nullptr);
    task_ = nullptr;
    onClose();
    closed_();
}

void Connection::onException(std::exception_ptr thrown) noexcept {
    Kel::Task::Notifiee::onException(std::move(thrown));
    close();
}

} // namespace KelKv
