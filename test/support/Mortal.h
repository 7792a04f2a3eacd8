#pragma once

#include <support/Names.h>
#include <task/Task.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>

namespace TestSupport {

/// A task that shows, without a sanitizer too, when it is used after its death: the memory of those that died
/// lately is kept, filled, and nobody may have written there.
struct Mortal : Task {
    using Task::Task;
    static Ptr<Task> MortalIs(Ptr<TaskScheduler> const& scheduler, TaskPriority priority,
                              String8 const& name) {
        Ptr<Task> const task = new Mortal(scheduler, priority, name);
        task->hasNotificationActiveIs(true);
        return task;
    }
#ifndef __SANITIZE_ADDRESS__
    [[gnu::noinline]] static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory, std::size_t size) {
        static constexpr unsigned char filling = 0xa5;
        static std::deque<std::pair<unsigned char*, std::size_t>> graves;
        std::memset(memory, filling, size);
        graves.emplace_back(static_cast<unsigned char*>(memory), size);
        if (graves.size() <= 100)
            return;
        auto const [oldest, length] = graves.front();
        EXPECT_EQ(static_cast<std::ptrdiff_t>(length), std::count(oldest, oldest + length, filling));
        graves.pop_front();
        ::operator delete(oldest);
    }
#endif
};

} // namespace TestSupport
