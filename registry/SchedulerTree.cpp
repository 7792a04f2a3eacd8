#define MOX_SOURCE_NAME "SchedulerTree"
#include <registry/SchedulerTree.h>

#include <kel/detail/Slices.h>
#include <mox/Assert.h>

#include <algorithm>
#include <set>
#include <sstream>

namespace Kel {

using Mox::RangeException;
using Entity = Mox::Ptr<Mox::PtrInterface>;

namespace {

constexpr std::size_t keysShown = 8; // of those that share a name

std::string inQuotes(std::string_view text) { return Mox::valueToStrep(text); }

/// What stands before the first `/`; the text becomes what stands behind it.
std::string_view takeName(std::string_view& text) {
    std::size_t const end = std::min(text.find('/'), text.size());
    std::string_view const name = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return name;
}

TaskKey keyOf(Mox::PtrInterface const* entity) { return TaskKey(reinterpret_cast<std::uintptr_t>(entity)); }

/// The key that the name is; none when it is none. A task may be named like a key, so what is no key is no
/// error: it is looked for as a name.
TaskKey keyFrom(std::string_view name) {
    TaskKey key = TaskKey::none();
    if (!name.starts_with('@'))
        return key;
    try {
        Mox::strepToValue(Mox::String(name), &key);
    } catch (RangeException const&) {
    }
    return key;
}

/// A group that was built below one scheduler can be run by a parent task of another, and what an operator
/// looks for is where its time goes to. A group without a parent task is shown where it was built, so that it
/// is to be found at all.
TaskScheduler const* schedulerAbove(TaskGroup const& group) {
    auto const parentTask = group.parentTask() ? group.parentTask()->notifier() : nullptr;
    return parentTask ? parentTask->taskScheduler().ptr() : group.parentScheduler().ptr();
}

/// No scheduler knows the groups below it, the root knows all of its tree: each level of a path is a search
/// through them, of which a tree has few. The root lists its schedulers as constants because it does not own
/// them; they were not made constant.
std::vector<TaskGroup*> groupsBelow(TaskScheduler const& scheduler) {
    std::vector<TaskGroup*> groups;
    for (auto const& [candidate, value] : scheduler.root()->taskScheduler())
        if (auto* const group = dynamic_cast<TaskGroup*>(const_cast<TaskScheduler*>(candidate)))
            if (schedulerAbove(*group) == &scheduler)
                groups.push_back(group);
    return groups;
}

std::string_view nameOf(TaskGroup const* group) { return group->taskGroupName(); }
std::string_view nameOf(Task const* task) { return task->taskRecord()->taskName(); }

Mox::Ptr<TaskRecord const> recordOf(Task const& task) { return task.taskRecord(); }
Mox::Ptr<SchedulerName const> recordOf(TaskGroup const& group) { return group.nameRecord(); }
/// Good as long as the record is; of a group the scheduler's, which has the same order.
std::string_view nameInRecord(Task const& task) { return nameOf(&task); }
std::string_view nameInRecord(TaskGroup const& group) { return group.schedulerName(); }

/// The task or the group, while it is there: the record, which is held, tells it from one that has come to
/// its place.
Task const* stillThere(TaskScheduler const& scheduler, Task const* task, TaskRecord const* record) {
    Task const* const there = scheduler.tasksRegistered(TaskKey::create(task));
    return there && recordOf(*there).ptr() == record ? there : nullptr;
}
TaskGroup const* stillThere(TaskScheduler const& scheduler, TaskGroup const* group,
                            SchedulerName const* record) {
    bool const isThere = scheduler.root()->taskScheduler().find(group) != nullptr;
    return isThere && recordOf(*group).ptr() == record ? group : nullptr;
}

/// The first so many of the children that it is given, by name and then by key; of the rest the number. The
/// key makes the order of namesakes the same in each call. None of them is held.
template <class Child> class FirstByName {
  public:
    using Order = std::pair<std::string_view, Child const*>;
    struct Place {
        Order order;
        decltype(recordOf(std::declval<Child const&>())) record;

        bool operator<(Place const& other) const { return order < other.order; }
    };

    /// Most of many children are turned away by a look at the last of those that are in.
    void add(Child const& child) {
        Order const order(nameInRecord(child), &child);
        bool const isFull = places_.size() == SchedulerTree::childrenMax;
        left_ += isFull;
        if (isFull && !(order < places_.rbegin()->order))
            return;
        if (isFull)
            places_.erase(std::prev(places_.end()));
        places_.insert({order, recordOf(child)});
    }
    std::set<Place> const& places() const { return places_; }
    std::size_t left() const { return left_; }

  private:
    std::set<Place> places_;
    std::size_t left_ = 0;
};

std::string lineOf(TaskGroup const* group) {
    std::ostringstream line;
    line << "group " << nameOf(group) << " " << keyOf(group).toStrep() << " priority "
         << group->taskGroupPriority() << ", quantum " << group->taskGroupQuantum() << " s, "
         << group->tasksRegistered().size() << " tasks";
    return line.str();
}

std::string lineOf(Task const* task) {
    TaskStat const stat = task->getStats();
    std::ostringstream line;
    line << "task " << nameOf(task) << " " << task->taskKey().toStrep() << " " << stat.taskStatusString()
         << " runs " << stat.taskRun() << ", total " << stat.taskTotalRunTime() << " s, longest "
         << stat.taskRunTimeHighWaterMark() << " s, work " << stat.taskWorkCount() << ", delay last "
         << stat.taskLastSchedulingLatency() << " s, most " << stat.taskSchedulingLatencyHighWaterMark()
         << " s, over 200% " << stat.taskQuantumViolation200() << ", over 500% "
         << stat.taskQuantumViolation500();
    return line.str();
}

std::string lineOf(Mox::Subject const& entity, Mox::Attribute const& attribute) {
    std::string line = "attribute " + attribute.name + " = " + Mox::attributeText(entity, attribute.name) +
                       " (" + attribute.type;
    if (!attribute.range.empty())
        line += " " + attribute.range;
    if (attribute.kind != Mox::AttributeKind::value)
        line += std::string(", ").append(toString(attribute.kind));
    else if (!attribute.isWritable())
        line += ", read only";
    return line + ")";
}

std::string lineOf(Mox::Operation const& operation) {
    std::string line = "operation " + operation.name + "(";
    for (std::string const& type : operation.parameterTypes)
        line += (line.ends_with('(') ? "" : ", ") + type;
    return line + ")" + (operation.resultType.empty() ? "" : " gives " + operation.resultType);
}

constexpr Mox::U32 perTask = 300, perLine = 5000;

/// The way along a path, one name at a time. It holds the group that it stands on, and a task only from the
/// step that has found it to the end of that slice.
class PathWalk {
  public:
    PathWalk(TaskSchedulerRoot& root, std::string path)
        : root_(&root), path_(std::move(path)), rest_(path_) {}
    PathWalk(PathWalk const&) = delete;
    PathWalk& operator=(PathWalk const&) = delete;

    /// To the end of the path.
    Slices toEnd() {
        begin();
        while (!rest_.empty())
            co_await step();
    }
    /// As far as there are children and something is left behind them, which is an attribute then. The last
    /// name is therefore never taken for a child: "root/x" asks for the root's attribute, "root/x/y" for that
    /// of its child x.
    Slices toAttribute() {
        begin();
        while (rest_.find('/') != rest_.npos) {
            if (std::string_view const name = nextName(); isCollection(name)) {
                co_await find(name);
                if (found_.count == 0)
                    break;
            }
            co_await step();
        }
        if (rest_.empty())
            throw RangeException("no attribute at the end of " + inQuotes(path_));
    }
    /// What the way has led to; nothing of it is held any more.
    Entity take() { return std::move(entity_); }
    std::string_view rest() const { return rest_; }

  private:
    /// The first, and the keys of the first few.
    struct Found {
        Mox::Ptr<TaskGroup> group;
        Task* task = nullptr;
        Mox::Ptr<TaskRecord const> record; // the task's
        std::size_t count = 0;
        std::string keys;

        void add(TaskGroup* found) {
            if (isFirst(found))
                group = found;
        }
        void add(Task* found) {
            if (isFirst(found))
                task = found, record = found->taskRecord();
        }
        bool isFirst(Mox::PtrInterface const* found) {
            if (++count <= keysShown)
                keys += " " + keyOf(found).toStrep();
            return count == 1;
        }
    };

    void begin() {
        std::string_view const name = takeName(rest_);
        if (name != root_->schedulerName() && keyFrom(name) != keyOf(root_.ptr()))
            throw RangeException("no root " + inQuotes(name) + ", it is " + inQuotes(root_->schedulerName()) +
                                 " " + keyOf(root_.ptr()).toStrep());
        entity_ = root_;
    }

    /// By key first: a key is what is left when names do not tell two apart, so it must not be hidden by a
    /// task that has it for its name.
    Slices find(std::string_view name) {
        found_ = {};
        auto* const scheduler = dynamic_cast<TaskScheduler*>(entity_.ptr());
        if (!scheduler)
            co_return;
        findKey(*scheduler, keyFrom(name));
        if (found_.count > 0)
            co_return;
        for (TaskGroup* group : groupsBelow(*scheduler))
            if (nameOf(group) == name)
                found_.add(group);
        auto const& tasks = scheduler->tasksRegistered();
        for (Task* task = tasks.first(); task;) {
            TaskKey const key = task->taskKey();
            if (nameOf(task) == name)
                found_.add(task);
            task = (co_yield perTask) ? tasks.behind(key) : tasks.after(task);
        }
    }
    void findKey(TaskScheduler& scheduler, TaskKey const& key) {
        if (key == TaskKey::none())
            return;
        for (TaskGroup* group : groupsBelow(scheduler))
            if (keyOf(group) == key)
                found_.add(group);
        if (Task* const task = scheduler.tasksRegistered(key))
            found_.add(task);
    }

    /// A task that was found may have died while the others were looked at.
    Slices step() {
        std::string_view const above = std::string_view(path_).substr(0, path_.size() - rest_.size() - 1);
        std::string_view const name = takeName(rest_);
        co_await find(name);
        bool const isTask = found_.task != nullptr;
        bool const isGone = isTask && !stillThere(dynamic_cast<TaskScheduler const&>(*entity_), found_.task,
                                                  found_.record.ptr());
        if (found_.count == 0 || (found_.count == 1 && isGone))
            throw RangeException("no task or group " + inQuotes(name) + " under " + inQuotes(above));
        if (found_.count > 1)
            throw RangeException(std::to_string(found_.count) + " are named " + inQuotes(name) + " under " +
                                 inQuotes(above) + ", use a key:" + found_.keys +
                                 (found_.count > keysShown ? " ..." : ""));
        entity_ = isTask ? Entity(found_.task) : Entity(found_.group);
        found_ = {};
    }

    std::string_view nextName() const {
        std::string_view ahead = rest_;
        return takeName(ahead);
    }
    /// Behind a collection comes a key, which may look like a name: the way ends before it. A child of the
    /// collection's name goes before the collection, as children do everywhere on a path but at its end.
    bool isCollection(std::string_view name) const {
        auto const* const attribute = Mox::typeRegistry().typeOf(*entity_).findAttribute(name);
        return attribute && attribute->keys;
    }

    Mox::Ptr<TaskSchedulerRoot> const root_;
    std::string const path_;
    std::string_view rest_; // behind the names walked so far
    Entity entity_;
    Found found_;
};

/// What the answers share: their way, and whether they are lists.
class AnswerInSlices : public LinesInSlices<SchedulerTree::Answer> {
  public:
    AnswerInSlices(Mox::Ptr<TaskSchedulerRoot> const& root, std::string_view path, bool isList = false)
        : walk_(*root, std::string(path)), isList_(isList) {
        root->sanityCheckCurrentRunningThread();
    }
    bool isList() const override { return isList_; }

  protected:
    PathWalk walk_;
    bool isList_;
};

class Listing : public AnswerInSlices {
    using AnswerInSlices::AnswerInSlices;

    /// Of a task, which is not held over slices, all is one step.
    Slices make() override {
        co_await walk_.toEnd();
        Entity const entity = walk_.take();
        bool const isScheduler = dynamic_cast<TaskScheduler const*>(entity.ptr());
        if (isScheduler)
            co_await listChildren(dynamic_cast<TaskScheduler const&>(*entity));
        Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*entity);
        for (Mox::Attribute const* attribute : type.attributes()) {
            line(lineOf(*entity, *attribute));
            if (isScheduler)
                co_yield perLine;
        }
        for (Mox::Operation const* operation : type.operations())
            line(lineOf(*operation));
    }

    Slices listChildren(TaskScheduler const& scheduler) {
        FirstByName<TaskGroup> groups;
        for (TaskGroup const* group : groupsBelow(scheduler))
            groups.add(*group);
        co_await list(scheduler, groups, "groups");
        FirstByName<Task> tasks;
        auto const& registered = scheduler.tasksRegistered();
        for (Task const* task = registered.first(); task;) {
            TaskKey const key = task->taskKey();
            tasks.add(*task);
            task = (co_yield perTask) ? registered.behind(key) : registered.after(task);
        }
        co_await list(scheduler, tasks, "tasks");
    }

    template <class Child>
    Slices list(TaskScheduler const& scheduler, FirstByName<Child> const& children, std::string_view what) {
        for (auto const& [order, record] : children.places()) {
            if (Child const* const child = stillThere(scheduler, order.second, record.ptr()))
                line(lineOf(child));
            co_yield perLine;
        }
        if (children.left() > 0)
            line(std::to_string(children.left()) + " more " + std::string(what));
    }
};

class Getting : public AnswerInSlices {
    using AnswerInSlices::AnswerInSlices;

    Slices make() override {
        co_await walk_.toAttribute();
        Entity const entity = walk_.take();
        std::string_view key = walk_.rest();
        std::string_view const name = takeName(key);
        Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*entity);
        isList_ = key.empty() && type.attribute(name).keys;
        if (isList_)
            for (Mox::String const& one : type.keys(*entity, name, SchedulerTree::childrenMax))
                line(one);
        else
            line(key.empty() ? type.text(*entity, name) : type.entryText(*entity, name, key));
    }
};

class Setting : public AnswerInSlices {
  public:
    Setting(Mox::Ptr<TaskSchedulerRoot> const& root, std::string_view path, std::string_view text)
        : AnswerInSlices(root, path), text_(text) {}

  private:
    Slices make() override {
        co_await walk_.toAttribute();
        Entity const entity = walk_.take();
        Mox::attributeTextIs(*entity, walk_.rest(), text_);
    }

    Mox::String const text_;
};

class Calling : public AnswerInSlices {
  public:
    Calling(Mox::Ptr<TaskSchedulerRoot> const& root, std::string_view path, std::string_view operation,
            std::vector<Mox::String> const& arguments)
        : AnswerInSlices(root, path), operation_(operation), arguments_(arguments) {}

  private:
    Slices make() override {
        co_await walk_.toEnd();
        Entity const entity = walk_.take();
        Mox::String const result = Mox::callOperation(*entity, operation_, arguments_);
        if (!result.empty())
            line(result);
    }

    std::string const operation_;
    std::vector<Mox::String> const arguments_;
};

/// In one go.
std::vector<std::string> linesOf(SchedulerTree::Answer& answer) {
    std::vector<std::string> lines;
    while (answer.nextLines(lines)) {
    }
    return lines;
}

} // namespace

SchedulerTree::SchedulerTree(Mox::Ptr<TaskSchedulerRoot> root) : root_(std::move(root)) { MOX_ASSERT(root_); }

std::unique_ptr<SchedulerTree::Answer> SchedulerTree::listing(std::string_view path) const {
    std::string const ofRoot = keyOf(root_.ptr()).toStrep();
    return std::make_unique<Listing>(root_, path.empty() ? ofRoot : path, true);
}

std::unique_ptr<SchedulerTree::Answer> SchedulerTree::getting(std::string_view path) const {
    return std::make_unique<Getting>(root_, path);
}

std::unique_ptr<SchedulerTree::Answer> SchedulerTree::setting(std::string_view path,
                                                              std::string_view text) const {
    return std::make_unique<Setting>(root_, path, text);
}

std::unique_ptr<SchedulerTree::Answer>
SchedulerTree::calling(std::string_view path, std::string_view operation,
                       std::vector<Mox::String> const& arguments) const {
    return std::make_unique<Calling>(root_, path, operation, arguments);
}

std::vector<std::string> SchedulerTree::list(std::string_view path) const { return linesOf(*listing(path)); }

std::variant<std::string, std::vector<std::string>> SchedulerTree::get(std::string_view path) const {
    auto const answer = getting(path);
    std::vector<std::string> lines = linesOf(*answer);
    if (answer->isList())
        return lines;
    return lines.front();
}

void SchedulerTree::set(std::string_view path, std::string_view text) const { linesOf(*setting(path, text)); }

std::string SchedulerTree::call(std::string_view path, std::string_view operation,
                                std::vector<Mox::String> const& arguments) const {
    auto const lines = linesOf(*calling(path, operation, arguments));
    return lines.empty() ? "" : lines.front();
}

} // namespace Kel
