#include <registry/SchedulerTree.h>

#include <group/TaskGroup.h>
#include <mox/AttributeText.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

#include <gmock/gmock.h>

#include <thread>

namespace Kel {

namespace {

using TestSupport::refusal;

struct SchedulerTreeTest : TestSupport::HandTreeTest {
    static std::string key(Mox::PtrInterface const* entity) {
        return TaskKey(reinterpret_cast<std::uintptr_t>(entity)).toStrep();
    }
    /// The text, or why there is none.
    std::string got(std::string_view path) {
        std::string text;
        std::string const problem = refusal([&] { text = std::get<std::string>(tree.get(path)); });
        return problem + text;
    }
    /// What the lines of groups and tasks begin with.
    std::string children(std::string_view path) {
        std::string names;
        for (std::string const& line : tree.list(path))
            if (line.starts_with("group ") || line.starts_with("task "))
                names += line.substr(0, line.find(' ', line.find(' ') + 1)) + "\n";
        return names;
    }

    Mox::Ptr<TaskGroup> const group = taskGroupFactory("jobs", TaskPriority::low, false, root);
    Mox::Ptr<TaskGroup> const inner = taskGroupFactory("inner", TaskPriority::low, false, group);
    Mox::Ptr<Task> const twin1 = task("twin"), twin2 = task("twin"), one = task("one");
    Mox::Ptr<Task> const deep = taskFactory(inner, TaskPriority::normal, "deep");
    SchedulerTree const tree{root};
};

} // namespace

TEST_F(SchedulerTreeTest, ListsGroupsThenTasksByNameAndSomeOfMany) {
    EXPECT_EQ(children(""), "group jobs\ntask TaskGroup;jobs\ntask one\ntask twin\ntask twin\n");
    EXPECT_FALSE(SchedulerTree(TestSupport::HandRoot::HandRootIs("a/b")).list("").empty());
    EXPECT_EQ(children("root/jobs") + children("root/jobs/inner"),
              "group inner\ntask TaskGroup;inner\ntask deep\n");
    EXPECT_THAT(tree.list("root/one"),
                testing::IsSupersetOf({"attribute taskQuantum = 0.02 (double within 1e-09 and 1.0 seconds)",
                                       "attribute taskName = 'one' (Mox::String, read only)",
                                       "operation getStats() gives Kel::TaskStat",
                                       "operation taskRunInc(Mox::U32)"}));
    one->taskRunIs(3), one->taskWorkCountIs(7);
    one->taskQuantumViolation200Is(5), one->taskQuantumViolation500Is(6);
    EXPECT_THAT(
        tree.list("root"),
        testing::IsSupersetOf({"task one " + key(one.ptr()) +
                                   "  n runs 3, total 0 s, longest 0 s, work 7, delay last 0 s, most 0 s, "
                                   "over 200% 5, over 500% 6",
                               "group jobs " + key(group.ptr()) + " priority low, quantum 0.02 s, 1 tasks"}));
    std::vector<Mox::Ptr<Task>> many;
    for (std::size_t const more : {0u, 1u, 400u}) {
        while (root->tasksRegistered().size() < SchedulerTree::childrenMax + more)
            many.push_back(task(more < 400 ? "many" : "z")); // before those that are in, and behind them
        std::vector<std::string> lines = tree.list("root");
        EXPECT_EQ(std::ranges::count(lines, std::to_string(more) + " more tasks"), more > 0);
        std::erase_if(lines, [](std::string const& line) { return !line.starts_with("task "); });
        EXPECT_EQ(lines.size(), SchedulerTree::childrenMax);
        EXPECT_TRUE(std::ranges::is_sorted(lines)); // namesakes by key
        EXPECT_EQ(std::ranges::count(got("root/many/taskRun"), '@'), 8);
        EXPECT_EQ(std::get<1>(tree.get("root/tasksRegistered")).size(), SchedulerTree::childrenMax);
    }
    many.clear();
    for (int i = 0; i < 200; ++i)
        many.push_back(task("each" + std::to_string(i)));
    for (auto const& each : many)
        EXPECT_EQ(got("root/" + each->taskName() + "/taskName"), "'" + each->taskName() + "'");
    for (int i = 0; i < 9; ++i)
        many.push_back(task("many"));
    auto victim = task("victim");
    auto const answer = tree.getting("root/victim/taskRun");
    std::string text;
    EXPECT_TRUE(answer->next(text)) << "two hundred names are no short step";
    victim = nullptr;
    EXPECT_EQ(refusal([&] { text = wholeText(*answer); }), "no task or group 'victim' under 'root'");
    EXPECT_FALSE(answer->next(text));
    for (std::size_t const some : {9u, 8u})
        EXPECT_EQ((many.resize(200 + some), got("root/many/taskRun").ends_with(" ...")), some > 8);
}

TEST_F(SchedulerTreeTest, PathsLeadToAttributesAndEntriesByNameOrKeyOrAreRefusedWithTheReason) {
    tree.set("root/jobs/inner/deep/taskQuantum", "0.5");
    EXPECT_EQ(deep->taskQuantum(), 0.5);
    tree.set("root/" + key(twin2.ptr()) + "/taskWorkCount", "7");
    EXPECT_EQ(twin1->taskWorkCount() * 10 + twin2->taskWorkCount(), 7u);
    tree.call("root/one", "scheduleTask", {});
    EXPECT_EQ(tree.call("root", "runnableTaskCount", {"'normal'"}), "1");
    auto const slashed = task("a/b"), keyLike = task("@0x"), namedAsAKey = task(key(one.ptr()));
    auto const shadow = taskGroupFactory("suspended", TaskPriority::low, false, root),
               hides = taskGroupFactory("deadTaskStats", TaskPriority::high, false, root);
    std::string const gone = key(task("gone\n").ptr()), ofOne = key(one.ptr()), ofRoot = key(root.ptr()),
                      listed = Mox::referenceToStrep(group.ptr());
    root->taskSchedulerIs(group.ptr(), false);
    for (auto const& [path, expected] : std::initializer_list<std::pair<std::string, std::string>>{
             {"root/" + key(group.ptr()) + "/inner/taskGroupName", "'inner'"},
             {"root/" + key(slashed.ptr()) + "/taskName", "'a/b'"},
             {"root/@0x/taskName", "'@0x'"},
             {"root/suspended", "False"},
             {"root/deadTaskStats/taskGroupPriority", "'high'"},
             {"root/" + ofOne + "/taskName", "'one'"},
             {ofRoot + "/tasksPerPriority/'normal'", "6"},
             {"root/tasksRegistered/" + ofOne, Mox::referenceToStrep(one.ptr())},
             {"root/tasksRegistered/" + gone, "no entry " + gone},
             {"root/taskScheduler/" + listed, "False"},
             {"root/jobs/deadTaskStats/'x'", "no entry 'x'"},
             {gone + "/suspended", "no root '" + gone + "', it is 'root' " + ofRoot},
             {"root", "no attribute at the end of 'root'"},
             {"root/one/two/taskRun", "no task or group 'two' under 'root/one'"},
             {"root/" + std::to_string(one->taskKey().value()) + "/taskRun", "' under 'root'"},
             {"root/" + gone + "/taskRun", "no task or group '" + gone + "' under 'root'"},
             {"root/jobs/" + ofOne + "/taskRun", "no task or group '" + ofOne + "' under 'root/jobs'"}})
        EXPECT_THAT(got(path), testing::EndsWith(expected)) << path;
    EXPECT_THAT(got("root/twin/taskRun"),
                testing::StartsWith("2 are named 'twin' under 'root', use a key: @0x"));
    inner->parentTaskIs(taskGroupParentTaskFactory(root, TaskPriority::low, "elsewhere", inner.ptr()));
    EXPECT_EQ(got("root/inner/taskGroupName"), "'inner'") << "it is where its parent task is";
    root->runUntilIdle();
    auto const last = task("last", TaskPriority::scavenge);
    last->scheduleTask();
    EXPECT_THROW(tree.set("root/schedulerHasRunnableTasks", "False"), Mox::RangeException);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a forked child may touch the tree
    EXPECT_DEATH(std::thread([&] { tree.list(""); }).join(), "schedulerThread");
    EXPECT_DEATH(std::thread([&] { tree.get("root/none/x"); }).join(), "schedulerThread");
}

} // namespace Kel
