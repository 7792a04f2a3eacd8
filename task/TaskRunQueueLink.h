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

    explicit TaskRunQueueLink(Entry entry = Entry::task) : entry_(entry) {}

    bool isLinked() const { return hook_.is_linked(); }
    bool isBookmark() const { return entry_ == Entry::bookmark; }
    /// Requires: the entry is linked.
    void unlink() { hook_.unlink(); }

  private:
    friend class IntrusiveLinkedListBase;
    using Hook =
        boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

    Hook hook_;
    Entry entry_;
};

} // namespace Kel
