#pragma once

#include <group/TaskGroup.h>
#include <kel/SlicedText.h>
#include <mox/TypeRegistry.h>
#include <scheduler/TaskSchedulerRoot.h>

#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Kel {

/// The live schedulers and tasks below a root, walked by name: for an application that offers its operators a
/// look at its own tree, and a hand in it, over a socket, a console or a debug page.
///
///     Kel::SchedulerTree const tree(root);
///     for (std::string const& line : tree.list("app/background"))
///         reply << line << '\n';
///     tree.set("app/background/keys/taskQuantum", "0.05");
///
/// Not for code that knows its entities, which calls them; nor for what is read again and again: everything
/// here is text, and by name a scheduler's tasks are searched one by one (a key is found at once). With a
/// million of them that takes a while, and `listing`, `getting`, `setting` and `calling` do the same as
/// `list`, `get`, `set` and `call`, in slices. Figures over time are what writePrometheus() gives.
///
/// A path begins with the root's name; `/` leads from a scheduler to a group or a task of it:
/// `kelkv/background/keys`. A group stands below the scheduler that its parent task belongs to, under its own
/// name; its parent task stands there too, as "TaskGroup;" and that name. Behind the entity comes an
/// attribute, behind a collection a key: `kelkv/suspended`, `kelkv/tasksPerPriority/'low'`.
///
/// A name that several have, or that has a `/` in it, is replaced by the key that `list` shows (`@0x...`);
/// the root's is told to who gets its name wrong. A key is looked up, it is never taken for an address.
///
/// Every function throws a Mox::Exception, for the operator to read, and has then changed nothing.
///
/// Thread rule: that of the tree; a call from another thread is fatal.
///
/// Lifetime: a value, which holds the root and nothing else. What it returns is text, and stays good when
/// the tree changes; a key may belong to another task later. An answer in slices holds the root, and the
/// groups on its path, but no task between the slices.
class MOX_EXPORT SchedulerTree {
  public:
    /// Requires: a root.
    explicit SchedulerTree(Mox::Ptr<TaskSchedulerRoot> root);

    /// So many groups, tasks and keys are told one by one; of further ones only their number.
    static constexpr std::size_t childrenMax = 1000;

    /// An answer in slices: whatever throws, throws from its `nextLines`. Tasks and groups are looked at one
    /// by one: those that are there all the time are found, or are in the list; those that come and go
    /// meanwhile may be. A line is one moment's. The groups of a tree, of which there are few, are one step,
    /// and so are the keys of a collection.
    class MOX_EXPORT Answer : public SlicedLines {
      public:
        /// Behind the last line: whether the lines are a list, and not one text, or none.
        virtual bool isList() const = 0;
    };
    std::unique_ptr<Answer> listing(std::string_view path) const;
    std::unique_ptr<Answer> getting(std::string_view path) const;
    std::unique_ptr<Answer> setting(std::string_view path, std::string_view text) const;
    /// No line where the operation has no result.
    std::unique_ptr<Answer> calling(std::string_view path, std::string_view operation,
                                    std::vector<Mox::String> const& arguments) const;

    /// A line each: groups, then tasks with their statistics, both by name and then by key, attributes with
    /// their values, operations; those in the order of their tables. An empty path is the root's.
    std::vector<std::string> list(std::string_view path) const;
    /// An attribute's text, or that of a collection's entry; of a collection its keys, up to `childrenMax`.
    std::variant<std::string, std::vector<std::string>> get(std::string_view path) const;
    /// Writes the attribute that the path ends with.
    void set(std::string_view path, std::string_view text) const;
    /// Calls an operation of the entity that the path leads to. Returns the text of the result, empty when
    /// there is none.
    std::string call(std::string_view path, std::string_view operation,
                     std::vector<Mox::String> const& arguments) const;

  private:
    Mox::Ptr<TaskSchedulerRoot> root_;
};

} // namespace Kel
