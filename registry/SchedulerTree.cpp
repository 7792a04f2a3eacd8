#define MOX_SOURCE_NAME "SchedulerTree"
#include <registry/SchedulerTree.h>

#include <mox/Assert.h>

#include <algorithm>
#include <sstream>

namespace Kel {

using Mox::RangeException;

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

/// The first so many, by name and then by key; the rest in no order: of a million tasks a thousand are shown,
/// and sorting all would take most of the time. The key makes the order of namesakes the same in each call.
template <class Child> std::size_t sortSome(std::vector<Child*>& children) {
    std::size_t const shown = std::min(children.size(), SchedulerTree::childrenMax);
    std::ranges::partial_sort(children, children.begin() + static_cast<std::ptrdiff_t>(shown),
                              [](Child const* a, Child const* b) {
                                  int const order = nameOf(a).compare(nameOf(b));
                                  return order != 0 ? order < 0 : a < b;
                              });
    return shown;
}

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

template <class Child>
void listChildren(std::vector<Child*> children, std::string_view what, std::vector<std::string>& lines) {
    std::size_t const shown = sortSome(children);
    for (std::size_t i = 0; i < shown; ++i)
        lines.push_back(lineOf(children[i]));
    if (shown < children.size())
        lines.push_back(std::to_string(children.size() - shown) + " more " + std::string(what));
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

} // namespace

/// The way along a path, one name at a time. It holds the entity that it stands on, so that a derived class
/// that lets go of it when it is read or called does not end it under the call.
class SchedulerTree::PathCursor {
  public:
    PathCursor(TaskSchedulerRoot& root, std::string_view path) : path_(path), rest_(path) {
        root.sanityCheckCurrentRunningThread();
        std::string_view const name = takeName(rest_);
        if (name != root.schedulerName() && keyFrom(name) != keyOf(&root))
            throw RangeException("no root " + inQuotes(name) + ", it is " + inQuotes(root.schedulerName()) +
                                 " " + keyOf(&root).toStrep());
        entity_ = &root;
    }

    /// To the end of the path.
    Entity toEnd() {
        while (!rest_.empty())
            step();
        return entity_;
    }
    /// As far as there are children and something is left behind them, which is an attribute then. The last
    /// name is therefore never taken for a child: "root/x" asks for the root's attribute, "root/x/y" for that
    /// of its child x.
    Entity toAttribute() {
        while (rest_.find('/') != rest_.npos && !leadsToCollection())
            step();
        if (rest_.empty())
            throw RangeException("no attribute at the end of " + inQuotes(path_));
        return entity_;
    }
    std::string_view rest() const { return rest_; }

  private:
    struct Found {
        Entity entity; // the first
        std::size_t count = 0;
        std::string keys; // of the first few

        void add(Mox::PtrInterface* found) {
            if (count++ == 0)
                entity = found;
            if (count <= keysShown)
                keys += " " + keyOf(found).toStrep();
        }
    };

    /// By key first: a key is what is left when names do not tell two apart, so it must not be hidden by a
    /// task that has it for its name.
    Found find(std::string_view name) const {
        Found found;
        auto* const scheduler = dynamic_cast<TaskScheduler*>(entity_.ptr());
        if (!scheduler)
            return found;
        std::vector<TaskGroup*> const groups = groupsBelow(*scheduler);
        if (TaskKey const key = keyFrom(name); key != TaskKey::none()) {
            for (TaskGroup* group : groups)
                if (keyOf(group) == key)
                    found.add(group);
            if (Task* const task = scheduler->tasksRegistered(key))
                found.add(task);
            if (found.count > 0)
                return found;
        }
        for (TaskGroup* group : groups)
            if (nameOf(group) == name)
                found.add(group);
        auto const& tasks = scheduler->tasksRegistered();
        for (Task* task = tasks.first(); task; task = tasks.after(task))
            if (nameOf(task) == name)
                found.add(task);
        return found;
    }

    void step() {
        std::string_view const above = path_.substr(0, path_.size() - rest_.size() - 1);
        std::string_view const name = takeName(rest_);
        Found const found = find(name);
        if (found.count == 0)
            throw RangeException("no task or group " + inQuotes(name) + " under " + inQuotes(above));
        if (found.count > 1)
            throw RangeException(std::to_string(found.count) + " are named " + inQuotes(name) + " under " +
                                 inQuotes(above) + ", use a key:" + found.keys +
                                 (found.count > keysShown ? " ..." : ""));
        entity_ = found.entity;
    }

    /// Behind a collection comes a key, which may look like a name: the way ends before it. A child of the
    /// collection's name goes before the collection, as children do everywhere on a path but at its end.
    bool leadsToCollection() const {
        std::string_view ahead = rest_;
        std::string_view const name = takeName(ahead);
        auto const* const attribute = Mox::typeRegistry().typeOf(*entity_).findAttribute(name);
        return attribute && attribute->keys && find(name).count == 0;
    }

    std::string_view const path_;
    std::string_view rest_; // behind the names walked so far
    Entity entity_;
};

SchedulerTree::SchedulerTree(Mox::Ptr<TaskSchedulerRoot> root) : root_(std::move(root)) { MOX_ASSERT(root_); }

std::vector<std::string> SchedulerTree::list(std::string_view path) const {
    root_->sanityCheckCurrentRunningThread();
    Entity const entity = path.empty() ? Entity(root_) : PathCursor(*root_, path).toEnd();
    std::vector<std::string> lines;
    if (auto const* const scheduler = dynamic_cast<TaskScheduler const*>(entity.ptr())) {
        listChildren(groupsBelow(*scheduler), "groups", lines);
        std::vector<Task const*> tasks;
        auto const& registered = scheduler->tasksRegistered();
        for (Task const* task = registered.first(); task; task = registered.after(task))
            tasks.push_back(task);
        listChildren(std::move(tasks), "tasks", lines);
    }
    Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*entity);
    for (Mox::Attribute const* attribute : type.attributes())
        lines.push_back(lineOf(*entity, *attribute));
    for (Mox::Operation const* operation : type.operations())
        lines.push_back(lineOf(*operation));
    return lines;
}

std::variant<std::string, std::vector<std::string>> SchedulerTree::get(std::string_view path) const {
    PathCursor cursor(*root_, path);
    Entity const entity = cursor.toAttribute();
    std::string_view key = cursor.rest();
    std::string_view const name = takeName(key);
    Mox::TypeEntry const& type = Mox::typeRegistry().typeOf(*entity);
    if (!key.empty())
        return type.entryText(*entity, name, key);
    if (!type.attribute(name).keys)
        return type.text(*entity, name);
    std::vector<Mox::String> const keys = type.keys(*entity, name);
    auto const shown = static_cast<std::ptrdiff_t>(std::min(keys.size(), childrenMax));
    return std::vector<std::string>(keys.begin(), keys.begin() + shown);
}

void SchedulerTree::set(std::string_view path, std::string_view text) const {
    PathCursor cursor(*root_, path);
    Entity const entity = cursor.toAttribute();
    Mox::attributeTextIs(*entity, cursor.rest(), text);
}

std::string SchedulerTree::call(std::string_view path, std::string_view operation,
                                std::vector<Mox::String> const& arguments) const {
    Entity const entity = PathCursor(*root_, path).toEnd();
    return Mox::callOperation(*entity, operation, arguments);
}

} // namespace Kel
