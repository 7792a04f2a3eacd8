#pragma once

#include <mox/Integers.h>

#include <pthread.h>

namespace Mox {

/// A thread's identity: its POSIX handle, and a second word that is 0 on this system.
class ThreadId {
  public:
    static ThreadId current() { return ThreadId(pthread_self()); }

    bool isCurrent() const { return pthread_equal(handle_, pthread_self()) != 0; }
    pthread_t handle() const { return handle_; }
    U64 word() const { return word_; }

    friend bool operator==(ThreadId const& a, ThreadId const& b) {
        return pthread_equal(a.handle_, b.handle_) != 0 && a.word_ == b.word_;
    }

  private:
    explicit ThreadId(pthread_t handle) : handle_(handle) {}

    pthread_t handle_;
    U64 word_ = 0;
};

} // namespace Mox
