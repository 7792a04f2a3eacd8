#pragma once

#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <string>

namespace Bench {

inline Mox::Ptr<Kel::TaskSchedulerEventLoop> newRoot() {
    return Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("bench", Kel::EventLoop::EventLoopIs());
}

/// 16 characters.
inline Mox::String8 nameOf(std::uint64_t i) {
    std::string const digits = std::to_string(i);
    return "connection" + std::string(6 - std::min<std::size_t>(6, digits.size()), '0') + digits;
}

inline Mox::Ptr<Kel::Task> newTask(Mox::Ptr<Kel::TaskSchedulerEventLoop> const& root,
                                   Mox::String8 const& name) {
    return Kel::Task::TaskIs(root, Kel::TaskPriority::normal, name);
}

} // namespace Bench
