#pragma once

#include <mox/Export.h>
#include <mox/Integers.h>

#include <pthread.h>

namespace Mox {

/// A thread's identity: its POSIX handle, and a second word that is 0 on this system.
class ThreadId {
  public:
    static ThreadId current() { return ThreadId(pthread_self()); }

    bool isCurrent() const { return mark_ == &ownMark_; }
    pthread_t handle() const { return handle_; }
    U64 word() const { return word_; }

    friend bool operator==(ThreadId const& a, ThreadId const& b) {
        return pthread_equal(a.handle_, b.handle_) != 0 && a.word_ == b.word_;
    }

  private:
    explicit ThreadId(pthread_t handle) : handle_(handle) {}

    // A word of each thread's own: its address tells live threads apart as the handle does, without a call.
    MOX_EXPORT static constinit thread_local char ownMark_ MOX_FAST_TLS;

    pthread_t handle_;
    U64 word_ = 0;
    char const* mark_ = &ownMark_;
};

} // namespace Mox
