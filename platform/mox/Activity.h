#pragma once

#include <mox/Ptr.h>
#include <mox/ThreadId.h>

namespace Mox {

/// What a reactor belongs to: the thread on which it is told. A null activity stands for the main one of the
/// calling thread.
class MOX_EXPORT Activity : public PtrInterface {
  public:
    static Ptr<Activity> ActivityIs() { return new Activity; }

    ThreadId const& threadId() const { return threadId_; }

  private:
    Activity() = default;

    ThreadId threadId_ = ThreadId::current();
};

} // namespace Mox
