#include <registry/SchedulerTree.h>

#include <group/TaskGroup.h>
#include <support/HandRoot.h>
#include <support/Refusal.h>

#include <gmock/gmock.h>

#include <thread>

namespace Kel {

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::refusal;

struct SchedulerTreeTest : TestSupport::HandTreeTest {
    static std::string key(Mox::PtrInterface const* entity) {
        return TaskKey(reinterpret_cast<std::uintptr_t>(entity)).toStrep();
    }
    std::string got(std::string_view path) { return std::get<std::string>(tree.get(path)); }
    /// The second words of the lines that begin so.
    std::vector<std::string> listed(std::string_view path, std::string_view what) {
        std::vector<std::string> names;
        for (std::string const& line : tree.list(path))
            if (line.starts_with(what))
                names.push_back(line.substr(what.size(), line.find(' ', what.size()) - what.size()));
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
    EXPECT_THAT(listed("", "group "), ElementsAre("jobs"));
    EXPECT_THAT(listed("root", "task "), ElementsAre("TaskGroup;jobs", "one", "twin", "twin"));
    EXPECT_THAT(listed("root/jobs", "group "), ElementsAre("inner"));
    EXPECT_THAT(listed("root/jobs/inner", "task "), ElementsAre("deep"));
    EXPECT_THAT(tree.list("root/one"),
                testing::IsSupersetOf({"attribute taskQuantum = 0.02 (double within 1e-09 and 1.0 seconds)",
                                       "attribute taskName = 'one' (Mox::String, read only)",
                                       "operation getStats() gives Kel::TaskStat",
                                       "operation taskRunInc(Mox::U32)"}));
    EXPECT_THAT(
        tree.list("root"),
        testing::Contains("operation attemptLowerPriorityBump(Kel::TaskPriority, Mox::U32) gives bool"));
    auto const ns = [](int count) { return TaskTimeDuration(count * 500000000); };
    one->taskRunIs(3), one->taskTotalRunTimeInternalIs(ns(4)), one->taskWorkCountIs(7);
    one->taskLastSchedulingLatencyInternalIs(ns(1)), one->taskSchedulingLatencyHighWaterMarkInternalIs(ns(3));
    one->taskQuantumViolation200Is(8), one->taskQuantumViolation500Is(9);
    EXPECT_THAT(tree.list("root"),
                testing::IsSupersetOf(
                    {"task one " + key(one.ptr()) +
                         "  n runs 3, total 2 s, longest 0 s, work 7, delay last 0.5 s, most 1.5 s, "
                         "over 200% 8, over 500% 9",
                     "group jobs " + key(group.ptr()) + " priority low, quantum 0.02 s, 1 tasks"}));
    std::vector<Mox::Ptr<Task>> many;
    auto const more = testing::Contains(testing::EndsWith(" more tasks"));
    while (root->tasksRegistered().size() < SchedulerTree::childrenMax)
        many.push_back(task("many"));
    EXPECT_THAT(tree.list("root"), testing::Not(more));
    many.push_back(task("many"));
    EXPECT_THAT(tree.list("root"), testing::Contains("1 more tasks"));
    many.push_back(task("many"));
    EXPECT_THAT(tree.list("root"), testing::Contains("2 more tasks"));
    EXPECT_EQ(listed("root", "task ").size(), SchedulerTree::childrenMax);
    EXPECT_EQ(std::get<1>(tree.get("root/tasksRegistered")).size(), SchedulerTree::childrenMax);
    std::vector<std::string> lines = tree.list("root");
    std::erase_if(lines, [](std::string const& line) {
        return !line.starts_with("task twin ") && !line.starts_with("task many");
    });
    EXPECT_TRUE(std::ranges::is_sorted(lines)); // namesakes by key
}

TEST_F(SchedulerTreeTest, PathsLeadToAttributesAndEntriesByNameOrKey) {
    tree.set("root/jobs/inner/deep/taskQuantum", "0.5");
    EXPECT_EQ(deep->taskQuantum(), 0.5);
    tree.set("root/" + key(twin2.ptr()) + "/taskWorkCount", "7");
    EXPECT_EQ(twin1->taskWorkCount() * 10 + twin2->taskWorkCount(), 7u);
    auto const slashed = task("a/b"), keyLike = task("@0x");
    auto const shadow = taskGroupFactory("suspended", TaskPriority::low, false, root),
               hides = taskGroupFactory("deadTaskStats", TaskPriority::high, false, root);
    auto const namedAsAKey = task(key(one.ptr()));
    for (auto const& [path, text] : std::initializer_list<std::pair<std::string, std::string>>{
             {"root/" + key(group.ptr()) + "/inner/taskGroupName", "'inner'"},
             {key(root.ptr()) + "/tasksPerPriority/'normal'", "6"},
             {"root/" + key(slashed.ptr()) + "/taskName", "'a/b'"},
             {"root/@0x/taskName", "'@0x'"},
             {"root/suspended", "False"},
             {"root/deadTaskStats/taskGroupPriority", "'high'"},
             {"root/" + key(one.ptr()) + "/taskName", "'one'"},
             {"root/suspended/taskGroupQuantum", "0.02"},
         })
        EXPECT_EQ(got(path), text) << path;
    EXPECT_EQ(tree.call("root/one", "scheduleTask", {}), "");
    EXPECT_EQ(tree.call("root", "runnableTaskCount", {"'normal'"}), "1");
}

TEST_F(SchedulerTreeTest, BadPathsAreRefusedWithTheReason) {
    std::string const gone = key(task("gone").ptr()), ofOne = key(one.ptr()),
                      itIs = ", it is 'root' " + key(root.ptr());
    for (auto const& [path, message] : std::initializer_list<std::pair<std::string, std::string>>{
             {"/root/suspended", "no root ''" + itIs},
             {"other/suspended", "no root 'other'" + itIs},
             {gone + "/suspended", "no root '" + gone + "'" + itIs},
             {"root", "no attribute at the end of 'root'"},
             {"root/one/", "no attribute at the end of 'root/one/'"},
             {"root//suspended", "no task or group '' under 'root'"},
             {"root/jobs/one/taskRun", "no task or group 'one' under 'root/jobs'"},
             {"root/one/two/taskRun", "no task or group 'two' under 'root/one'"},
             {"root/" + gone + "/taskRun", "no task or group '" + gone + "' under 'root'"},
             {"root/jobs/" + ofOne + "/taskRun", "no task or group '" + ofOne + "' under 'root/jobs'"},
             {"root/one", "Kel::TaskSchedulerRoot has no attribute 'one'"},
             {"root/suspended/x", "no task or group 'suspended' under 'root'"},
             {"root/deadTaskStats/'x'", "Kel::TaskSchedulerRoot::deadTaskStats: no entry 'x'"},
         })
        EXPECT_EQ(refusal([&, &path = path] { tree.get(path); }), message);
    EXPECT_THAT(refusal([&] { tree.get("root/twin/taskRun"); }),
                AllOf(StartsWith("2 are named 'twin' under 'root', use a key: @0x"),
                      HasSubstr(key(twin1.ptr())), HasSubstr(key(twin2.ptr()))));
    std::vector<Mox::Ptr<Task>> twins;
    for (std::size_t const count : {8u, 9u, 10u}) {
        while (twins.size() + 2 < count)
            twins.push_back(task("twin"));
        std::string const problem = refusal([&] { tree.get("root/twin/taskRun"); });
        EXPECT_THAT(problem, StartsWith(std::to_string(count) + " are named"));
        EXPECT_EQ(std::ranges::count(problem, '@'), 8);
        EXPECT_EQ(problem.ends_with(" ..."), count > 8) << problem;
    }
    EXPECT_EQ(refusal([&] { tree.set("root/one/taskQuantum", "2.0"); }),
              "Kel::Task::taskQuantum: 2.0 is not within 1e-09 and 1.0 seconds");
    EXPECT_EQ(refusal([&] { tree.call("root/one/taskRun", "scheduleTask", {}); }),
              "no task or group 'taskRun' under 'root/one'");
}

TEST_F(SchedulerTreeTest, ParentTaskMovedAwayTakesItsGroupAlong) {
    auto const elsewhere = taskGroupParentTaskFactory(inner, TaskPriority::low, "elsewhere", group.ptr());
    inner->parentTaskDel(); // else each would stand below the other
    group->parentTaskIs(elsewhere);
    EXPECT_THAT(listed("root", "group "), ElementsAre());
    group->parentTaskDel();
    EXPECT_THAT(listed("root", "group "), ElementsAre("jobs"));
}

TEST_F(SchedulerTreeTest, AnotherThreadMayNotEvenLook) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a forked child may touch the tree
    EXPECT_DEATH(std::thread([&] { tree.list(""); }).join(), "schedulerThread");
    EXPECT_DEATH(std::thread([&] { tree.get("root/suspended"); }).join(), "schedulerThread");
}

} // namespace Kel
