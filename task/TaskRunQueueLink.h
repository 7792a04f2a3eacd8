#pragma once

#include <mox/Integers.h>

#include <boost/intrusive/list_hook.hpp>

namespace Kel {

/// An entry's link in a run queue. It unlinks itself when it is destroyed, and asserts when linked twice.
///
/// An entry is a task, or a bookmark: a placeholder that holds a position while the queue is walked.
class TaskRunQueueLink {
  public:
    enum class Entry : Mox::U8 { task, bookmark };

    explicit TaskRunQueueLink(Entry entry = Entry::task) { entryIs(entry == Entry::bookmark); }
    /// A copy is an entry of the same kind, and not linked.
    TaskRunQueueLink(TaskRunQueueLink const& other) { entryIs(other.isBookmark()); }
    TaskRunQueueLink& operator=(TaskRunQueueLink const& other) {
        entryIs(other.isBookmark());
        return *this;
    }

    bool isLinked() const { return hook_.is_linked(); }
    bool isBookmark() const { return ahead_ == this; }
    /// Requires: the entry is linked.
    void unlink() { hook_.unlink(); }

    /// Where the entry is that will be first some runs after this one, if nothing changes: for the caches. It
    /// may be gone, and is never looked at.
    void const* ahead() const { return ahead_; }
    /// Requires: this is a task's.
    void aheadIs(TaskRunQueueLink const* entry) { ahead_ = entry == this ? nullptr : entry; }

  private:
    friend class IntrusiveLinkedListBase;
    using Hook =
        boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

    void entryIs(bool bookmark) { ahead_ = bookmark ? this : nullptr; }

    Hook hook_;
    void const* ahead_; // of a bookmark: itself
};

} // namespace Kel
