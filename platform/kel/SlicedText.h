#pragma once

#include <mox/Export.h>

#include <string>
#include <vector>

namespace Kel {

/// A text that is made in slices: for what is too long to be made in one go in a process whose one thread
/// does everything. The work of a task, say:
///
///     while (text->next(part))
///         if (task->taskShouldYield())
///             return task->scheduleTask();
///
/// Not for short texts, nor for programs that may stand still meanwhile: each text has a function that makes
/// it whole, and both make the same.
///
/// What is told may change between the slices, and its owner may let it go. Each function that makes a sliced
/// text says whether that is then one moment's, or what else may be in it.
///
/// Thread rule: that of what is told. Lifetime: whoever asked for it owns it; it holds what it needs. What it
/// has gathered goes in slices, too, before the last one. One that is destroyed before that lets all go at
/// once, which takes a while where millions of names were gathered: who gives up can go on to the end all the
/// same, and drop the parts.
class MOX_EXPORT SlicedText {
  public:
    SlicedText(SlicedText const&) = delete;
    SlicedText& operator=(SlicedText const&) = delete;
    virtual ~SlicedText();

    /// Appends the next part: some KiB, some tens of microseconds of work. Often a part is empty, since what
    /// is gathered before the first byte takes slices as well. Returns whether there is more. Where the
    /// function for the whole text throws, the call that finds the reason throws the same; nothing follows.
    virtual bool next(std::string& text) = 0;

  protected:
    SlicedText() = default;
};

/// The same of lines, for who sends them one by one: a line may have any bytes in it.
class MOX_EXPORT SlicedLines : public SlicedText {
  public:
    /// Appends the next lines, without what ends them.
    virtual bool nextLines(std::vector<std::string>& lines) = 0;
    /// A newline behind each.
    bool next(std::string& text) override;
};

/// All that is left of it, in one go.
MOX_EXPORT std::string wholeText(SlicedText& text);

} // namespace Kel
