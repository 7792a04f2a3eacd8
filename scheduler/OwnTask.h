#pragma once

#include <mox/Exception.h>
#include <mox/OwnReactors.h>

#include <utility>

namespace Kel {

/// A reactor on a task that its scheduler made for itself; T is Task or TimerTask.
///
/// Such a task does not keep the scheduler alive, since nobody owns himself. So it is orphaned as soon as the
/// reactor loses it: others may hold it, and the scheduler may be gone by then.
template <class T, class Owner> class OwnTaskReactor;

/// What T and its scheduler let an OwnTaskReactor do with them.
template <class T> class OwnTaskAccess {
    template <class, class> friend class OwnTaskReactor;
    static void owned(T& task) { task.ownedBySchedulerIs(); }
    static void orphan(T& task) { task.orphan(); }
};

template <class T, class Owner> class OwnTaskReactor : public Mox::OwnedReactor<typename T::Notifiee, Owner> {
  public:
    ~OwnTaskReactor() override { this->notifierIs(nullptr); }

    /// Attaches to a task made by the owner, on itself or on another scheduler.
    void ownTaskIs(Mox::Ptr<T> const& task) {
        this->notifierIs(task);
        if (task->scheduler() != this->owner())
            return;
        ownTask_ = task.ptr();
        OwnTaskAccess<T>::owned(*ownTask_);
    }

  private:
    void handleNotifier() override {
        if (ownTask_ && ownTask_ != this->rawNotifier())
            OwnTaskAccess<T>::orphan(*std::exchange(ownTask_, nullptr));
    }

    T* ownTask_ = nullptr;
};

/// The member of a scheduler that holds one of its own tasks by its reactor, or none. R is an OwnTaskReactor.
///
/// Lifetime: the task is dropped as soon as nobody refers to the scheduler, which is whole then: root, clock
/// and parent are still there for what the task's end tells.
template <class R> class OwnTask : public Mox::OwnReactor<R> {
  public:
    using Mox::OwnReactor<R>::OwnReactor;

    /// Null when there is none, or when its reactor has lost it.
    auto task() const { return *this ? (*this)->notifier() : nullptr; }
    /// Requires: there is a reactor. Throws Mox::RangeException when it has lost its task.
    auto taskThere() const {
        auto const task = this->task();
        if (!task)
            throw Mox::RangeException("null ValidPtr");
        return task;
    }
    /// Returns the task, orphaned if it was the scheduler's own; null when there was none.
    auto dropTask() {
        auto const reactor = this->drop();
        auto const task = reactor ? reactor->notifier() : nullptr;
        if (reactor)
            reactor->notifierIs(nullptr);
        return task;
    }

  private:
    void ownerEnds() override { dropTask(); }
};

} // namespace Kel
