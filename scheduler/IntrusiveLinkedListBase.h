#pragma once

#include <mox/Assert.h>
#include <task/TaskRunQueueLink.h>

#include <boost/intrusive/list.hpp>

namespace Kel {

/// The list under a run queue: links of tasks and of bookmarks, in the order in which they were appended. It
/// owns none of them, and an entry that goes unlinks itself. All operations take constant time but
/// `firstTask`, which takes as long as there are bookmarks at the head.
class IntrusiveLinkedListBase {
  public:
    IntrusiveLinkedListBase() = default;
    ~IntrusiveLinkedListBase() { list_.clear(); }

    bool empty() const { return list_.empty(); }

    /// Requires: the entry is not linked.
    void pushBack(TaskRunQueueLink& entry) {
        MOX_ASSERT_IN("TaskScheduler", "!entry.isLinked()", !entry.isLinked());
        list_.push_back(entry);
    }
    /// Requires: the position is linked here; the entry is not linked.
    void insertBefore(TaskRunQueueLink& position, TaskRunQueueLink& entry) {
        MOX_ASSERT_IN("TaskScheduler", "!entry.isLinked()", !entry.isLinked());
        list_.insert(list_.iterator_to(position), entry);
    }

    TaskRunQueueLink* front() { return empty() ? nullptr : &list_.front(); }
    TaskRunQueueLink const* front() const { return empty() ? nullptr : &list_.front(); }
    /// The entry behind one that is linked here; null at the end.
    TaskRunQueueLink* after(TaskRunQueueLink& entry) {
        auto const next = std::next(list_.iterator_to(entry));
        return next == list_.end() ? nullptr : &*next;
    }
    TaskRunQueueLink const* after(TaskRunQueueLink const& entry) const {
        auto const next = std::next(list_.iterator_to(entry));
        return next == list_.end() ? nullptr : &*next;
    }
    /// The first entry that is no bookmark; null when there is none.
    TaskRunQueueLink* firstTask() {
        auto at = list_.begin();
        while (at != list_.end() && at->isBookmark())
            ++at;
        return at == list_.end() ? nullptr : &*at;
    }

    void clear() { list_.clear(); }

  private:
    boost::intrusive::list<
        TaskRunQueueLink,
        boost::intrusive::member_hook<TaskRunQueueLink, TaskRunQueueLink::Hook, &TaskRunQueueLink::hook_>,
        boost::intrusive::constant_time_size<false>>
        list_;
};

} // namespace Kel
