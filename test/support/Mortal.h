#pragma once

#include <support/Names.h>
#include <task/Task.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>

namespace TestSupport {

/// Keeps the memory of what died lately, filled: nobody may use it any more.
class Graves {
  public:
    ~Graves() {
        for (auto const& [memory, size] : graves_)
            ::operator delete(memory);
    }
    void bury(void* memory, std::size_t size) {
        std::memset(memory, filling, size);
        graves_.emplace_back(static_cast<unsigned char*>(memory), size);
        if (graves_.size() <= 100)
            return;
        auto const [oldest, length] = graves_.front();
        EXPECT_EQ(static_cast<std::ptrdiff_t>(length), std::count(oldest, oldest + length, filling));
        graves_.pop_front();
        ::operator delete(oldest);
    }

  private:
    static constexpr unsigned char filling = 0xa5;
    std::deque<std::pair<unsigned char*, std::size_t>> graves_;
};

/// A task that shows, without a sanitizer too, when it is used after its death.
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
        static Graves graves;
        graves.bury(memory, size);
    }
#endif
};

} // namespace TestSupport
