#include <export/ChromeTrace.h>
#include <export/Prometheus.h>

#include <group/TaskGroup.h>
#include <registry/SchedulerTree.h>
#include <scheduler/TaskSchedulerReport.h>
#include <support/HandRoot.h>
#include <support/Python.h>
#include <support/RandomRecords.h>
#include <support/TaskReactors.h>

#include <boost/algorithm/string/join.hpp>

#include <array>
#include <sstream>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Kel::Task;
using Kel::TaskPriority;
using Mox::Ptr;
using Mox::valueToStrep;

/// The texts as Python has them in a list.
std::string list(auto const& all, auto const& textOf) {
    std::string text = "[";
    for (auto const& one : all)
        text += textOf(one) + ",";
    return text + "]";
}
std::string tuple(auto const&... values) {
    return "(" + ((std::string(valueToStrep(values)) + ",") + ...) + ")";
}

/// A tree in which a random program works. What is written of it is put beside what the tree says of itself,
/// for the models of check_export.py, which see both.
struct ExportTest : TestSupport::HandTreeTest {
    struct Worker {
        Ptr<Task> task;
        Ptr<TestSupport::OnRun> work;
    };

    ~ExportTest() override { workers = {}; }

    template <class T, std::size_t n> T oneOf(T const (&all)[n]) { return all[random.below(n)]; }
    Mox::String name() {
        return random.oneIn(3) ? records.name()
                               : Mox::String(oneOf({"root", "t", "other", "a\"\\\n", "TaskGroup;g"}));
    }
    TaskPriority priority() {
        return TaskPriority::PriorityEnumInstance(static_cast<Mox::U32>(random.below(5)));
    }
    std::chrono::nanoseconds time(std::size_t limit) { return unit * static_cast<int>(random.below(limit)); }

    /// A group, or one that the root does not list.
    void newScheduler(Ptr<Kel::TaskScheduler>& place) {
        if (random.oneIn(2)) {
            place = Kel::taskGroupFactory(random.oneIn(3) ? name() : "g", priority(), false, root);
            root->taskSchedulerIs(place.ptr(), !random.oneIn(3));
        } else {
            place = new TestSupport::HandScheduler(name(), root.ptr());
            place->hasNotificationActiveIs(true);
        }
    }
    void newTask(Worker& worker) {
        Ptr<Kel::TaskScheduler> scheduler = random.of(schedulers);
        if (!scheduler || random.oneIn(2))
            scheduler = root;
        if (random.oneIn(3))
            worker.task = Kel::timerTaskFactory(scheduler, priority(), name());
        else
            worker.task = Kel::taskFactory(scheduler, priority(), name());
        worker.work = new TestSupport::OnRun(worker.task, [this] { run(); });
        worker.task->taskQuantumIs(oneOf({0.02, 0.125, 0.5, 1e-9}));
    }
    void newDead() {
        Kel::TaskStat stat = records.taskStat();
        stat.taskTotalRunTimeIs(oneOf({0.125, Mox::endOfTime, -Mox::endOfTime, std::nan("")}));
        root->deadTaskStatsInc(stat.taskName(), stat);
    }
    void clockGoesBack() {
        Ptr<TestSupport::OnRun> const back =
            new TestSupport::OnRun(task("back"), [this] { steady.advance(-unit); });
        back->notifier()->taskRunFromTest();
        steady.advance(unit);
    }
    /// The work of every task; the statistics may be reset by what runs around it.
    void run() {
        steady.advance(time(7));
        if (++depth < 4 && random.oneIn(4))
            change(random.of(workers));
        if (random.oneIn(looking))
            look();
        if (random.oneIn(depth > 1 ? clearing / 8 : clearing))
            root->clearHistory();
        if (random.oneIn(40))
            root->resetStatsTaskDel();
        --depth;
    }
    void change(Worker& worker) {
        Ptr<Task> const task = worker.task;
        auto* const timer = dynamic_cast<Kel::TimerTask*>(task.ptr());
        if (!task)
            return newTask(worker);
        switch (random.below(9)) {
        case 0: worker = {}; break;
        case 1: task->unscheduleTask(); break;
        case 2: task->taskRunFromTest(); break;
        case 3: task->taskSuspendedForTestIs(random.oneIn(2)); break;
        case 4: task->taskForceYieldInTestIs(random.oneIn(2)); break;
        case 5: timer ? timer->scheduleTaskDelay(1.0) : task->scheduleTask(); break;
        case 6: timer ? timer->stopTimerTask() : task->scheduleTask(); break;
        default: task->scheduleTask();
        }
    }
    /// From the third on nothing counts backwards.
    void step(std::size_t first = 0) {
        auto& scheduler = random.of(schedulers);
        change(random.of(workers));
        steady.advance(time(3));
        switch (first + random.below(100 - first)) {
        case 0: newDead(), newDead(), newDead(); break;
        case 1: clockGoesBack(); break;
        case 2: root->resetStats(); break;
        case 3: root->suspendedIs(!root->suspended()); break;
        case 4: scheduler = nullptr; break;
        case 5: newScheduler(scheduler); break;
        default: scheduler&& random.oneIn(3) ? scheduler->handleSchedulerRun() : root->handleSchedulerRun();
        }
    }

    static std::string factsOf(std::pair<Kel::TaskScheduler const*, bool> const& entry) {
        if (!entry.second)
            return "None";
        Kel::TaskScheduler const& scheduler = *entry.first;
        std::vector<Kel::TaskStat> living, dead;
        scheduler.getTaskStats(&living, true);
        scheduler.getDeadTaskStats(&dead, true);
        std::string counts;
        for (Mox::U32 p = 0; p < 5; ++p) {
            auto const priority = TaskPriority::PriorityEnumInstance(p);
            counts += tuple(scheduler.runnableTaskCount(priority), scheduler.tasksPerPriority(priority),
                            scheduler.deadTasksPerPriority(priority)) +
                      ",";
        }
        auto const text = [](Kel::TaskStat const& stat) { return std::string(valueToStrep(stat)); };
        return "(" + valueToStrep(scheduler.schedulerName()) + "," +
               valueToStrep(scheduler.schedulerMaxSchedulerSlip()) + ",[" + counts + "]," +
               list(living, text) + "," + list(dead, text) + ")";
    }
    /// A task is known by its place in the list of tasks.
    std::string facts() {
        std::vector<Kel::TaskRecord const*> tasks{nullptr};
        std::string events;
        for (auto at = root->history().end(); at != root->history().begin();) {
            auto const place = std::ranges::find(tasks, (--at)->task().ptr()) - tasks.begin();
            if (place == std::ssize(tasks))
                tasks.push_back(at->task().ptr());
            events += tuple(static_cast<Mox::U32>(at->eventType()),
                            Mox::S64{at->timeStamp().time_since_epoch().count()}, Mox::S64{place - 1}) +
                      ",";
        }
        tasks.erase(tasks.begin());
        auto const ofTask = [](Kel::TaskRecord const* task) {
            return tuple(task->taskName(), task->schedulerName(),
                         Mox::U32{task->taskPriority().numericValue()}, Mox::S64{task->taskQuantum().count()},
                         task->isAlive());
        };
        return "(" + valueToStrep(root->schedulerName()) + "," + std::to_string(steady.now().count()) + ",[" +
               events + "]," + list(tasks, ofTask) + "," + list(root->taskScheduler(), factsOf) + ")";
    }
    void look() {
        auto const& scheduler = random.of(schedulers);
        auto const all = kinds(scheduler ? *scheduler : *root);
        for (Kind const& kind : all) {
            std::string const expected = kind.whole(); // one after the other: they count as references
            EXPECT_EQ(expected, wholeText(*kind.sliced()));
        }
        std::ostringstream most, some;
        std::size_t const namesMax = unit == 125ms ? random.below(25) : 200;
        Kel::writePrometheus(root, most);
        Kel::writePrometheus(root, some, namesMax);
        looks << "(" << facts() << "," << valueToStrep(all[0].whole()) << ",{200:" << valueToStrep(most.str())
              << "," << namesMax << ":" << valueToStrep(some.str()) << "})\n";
    }

    /// A text whole, and in slices.
    struct Kind {
        std::function<void(std::ostream&)> write;
        std::function<std::unique_ptr<Kel::SlicedText>()> sliced;

        std::string whole() const {
            std::ostringstream sink;
            write(sink);
            return sink.str();
        }
    };
    static void print(std::ostream& to, auto const& printTo) {
        auto const sink = Kel::StringDumpContext::StringDumpContextIs();
        printTo(sink);
        to << sink->text();
    }
    /// Of the root, or of a scheduler below it where that is told.
    std::vector<Kind> kinds(Kel::TaskScheduler const& scheduler) {
        auto const stats = [&scheduler](bool tasks, bool dead) {
            auto const printTo = [=, &scheduler](auto& sink) {
                scheduler.printStats(sink, 0, tasks, dead, false, false);
            };
            return Kind{[=](auto& to) { print(to, printTo); },
                        [=, &scheduler] { return Kel::slicedStats(&scheduler, tasks, dead); }};
        };
        bool const canPrintDead = std::ranges::all_of(scheduler.deadTaskStats(), [](auto const& entry) {
            return entry.second.taskPriority().isValid();
        });
        std::string const path = Kel::TaskKey(reinterpret_cast<std::uintptr_t>(root.ptr())).toStrep();
        Kel::SchedulerTree const tree(root);
        return {{[&](auto& to) { Kel::writeChromeTrace(root, to); },
                 [&] { return Kel::slicedChromeTrace(root); }},
                {[&](auto& to) { print(to, [&](auto& sink) { root->printHistory(sink, 0); }); },
                 [&] { return Kel::slicedHistory(root); }},
                {[&](auto& to) { Kel::writePrometheus(root, to, 1000000); },
                 [&] { return Kel::slicedPrometheus(root, 1000000); }},
                stats(false, canPrintDead),
                stats(true, false),
                {[path, tree](auto& to) { to << boost::join(tree.list(path), "\n") << "\n"; },
                 [path, tree] { return tree.listing(path); }}};
    }

    TestSupport::RandomRecords records;
    TestSupport::Random& random = records.random();
    std::chrono::nanoseconds unit{};
    std::size_t clearing = 0, looking = 0;
    int depth = 0;
    std::array<Ptr<Kel::TaskScheduler>, 4> schedulers;
    std::array<Worker, 12> workers;
    std::ostringstream looks;
};

} // namespace

/// The first program fills the ring, the second has many names. Sums of eighths of a second are exact: whose
/// is the greatest does not depend on their order.
TEST_F(ExportTest, IsWhatTheModelsMakeOfTheHistoryAndTheStatistics) {
    for (int program = 0; program < 40; ++program) {
        workers = {};
        schedulers = {};
        root = TestSupport::HandRoot::HandRootIs(name());
        unit = oneOf<std::chrono::nanoseconds>({125ms, 337ns, 1ns});
        clearing = program > 0 && random.oneIn(2) ? 40 : 100000;
        looking = program > 0 ? 30 : 100000;
        for (auto& scheduler : schedulers) // some of one name
            random.oneIn(2) ? newScheduler(scheduler) : void();
        for (std::size_t i = program > 0 ? random.below(150) : 12000; i > 0; --i)
            step();
        for (int i = 0; program == 1 && i < 220; ++i)
            task("n" + std::to_string(i), priority());
        look();
    }
    for (auto const& line : TestSupport::python("export/check_export.py", looks.str()))
        ADD_FAILURE() << line;
}

/// Nothing of the tree is looked at when the sink has got the first byte, so that a sink may end it.
TEST_F(ExportTest, ASinkThatEndsTheTreeGetsTheWholeTextAndOneThatFailsIsAnError) {
    struct EndsTheTree : std::stringbuf {
        explicit EndsTheTree(ExportTest& tree) : test(tree) {}
        std::streamsize xsputn(char const* text, std::streamsize size) override {
            test.workers[0] = {};
            test.root->clearHistory();
            return std::stringbuf::xsputn(text, size);
        }
        int sync() override { return -1; } // after the whole text
        ExportTest& test;
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a forked child may touch the tree
    for (std::size_t const written : {0u, 2u}) {
        auto const write = kinds(*root)[written].write;
        newTask(workers[0]);
        workers[0].task->scheduleTask();
        std::ostringstream expected;
        write(expected);
        EXPECT_DEATH(std::thread([&] { write(expected); }).join(), "schedulerThread");
        EndsTheTree buffer(*this);
        std::ostream sink(&buffer);
        EXPECT_THROW(write(sink), std::ios_base::failure);
        EXPECT_EQ(buffer.str(), expected.str());
    }
}

namespace {

/// A tree that changes between the slices.
struct SlicedTextsTest : ExportTest {
    SlicedTextsTest() {
        unit = 125ms;
        clearing = looking = 100000;
        for (int i = 0; i < 200; ++i)
            staying.push_back(task("stays" + std::to_string(i), priority()));
        for (auto& one : crowd)
            join(one);
    }
    ~SlicedTextsTest() override { crowd = {}; }

    void join(Ptr<Task>& place) {
        place = task("n" + std::to_string(random.below(400)), priority());
        place->taskRunIs(static_cast<Mox::U32>(random.below(100)));
    }
    void somethingHappens() {
        for (std::size_t times = random.below(3); times > 0; --times)
            step(3), join(random.of(crowd));
    }
    /// `afterFirst` is called behind the first slice.
    std::string made(Kel::SlicedText& text, std::function<void()> const& afterFirst = {}) {
        std::string made;
        bool more = text.next(made);
        if (afterFirst)
            afterFirst();
        for (; more; more = text.next(made))
            somethingHappens();
        return made;
    }
    /// The runs of all tasks of the root by name.
    static std::map<std::string, std::uint64_t> runs(std::string const& metrics) {
        std::map<std::string, std::uint64_t> runs;
        std::istringstream lines(metrics);
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with("keltask_task_runs_total{scheduler=\"root\","))
                runs[line.substr(line.find("task=\""), line.rfind('}') - line.find("task=\""))] +=
                    std::stoull(line.substr(line.rfind(' ')));
        return runs;
    }

    std::vector<Ptr<Task>> staying;
    std::array<Ptr<Task>, 600> crowd;
};

} // namespace

TEST_F(SlicedTextsTest, AreOfOneMomentOrHaveAllThatIsThereThroughout) {
    for (std::size_t round = 0; round < TestSupport::operations(30); ++round) {
        root->deadTaskStatsDelAll(); // or names would become more and more
        auto const all = kinds(*root);
        for (std::size_t const ofOneMoment : {0u, 1u}) {
            std::string expected;
            auto const text = all[ofOneMoment].sliced();
            std::string const got = made(*text, [&] { expected = all[ofOneMoment].whole(); });
            EXPECT_EQ(expected, got);
        }
        auto const before = runs(all[2].whole());
        auto const during = runs(made(*all[2].sliced()));
        auto const after = runs(all[2].whole());
        EXPECT_GE(during.size(), before.size());
        for (auto const& [name, count] : during) {
            EXPECT_GE(count, before.contains(name) ? before.at(name) : 0) << name;
            EXPECT_LE(count, after.at(name)) << name;
        }
        std::string alive; // until a slice has seen it, or just behind that
        for (auto const text = all[2].sliced(); text->next(alive);)
            for (auto& one : crowd)
                one = random.oneIn(8) ? nullptr : one;
        EXPECT_EQ(runs(alive), after);
        for (auto& one : crowd)
            join(one);
        std::string const stats = made(*all[4].sliced()), list = made(*all[5].sliced());
        for (auto const& one : staying) {
            std::string const figures = "\n" + one->taskName() + " ",
                              entry = "\ntask " + one->taskName() + " " + one->taskKey().toStrep();
            EXPECT_TRUE(stats.find(figures) != stats.npos && stats.find(figures) == stats.rfind(figures));
            EXPECT_TRUE(list.find(entry) != list.npos && list.find(entry) == list.rfind(entry));
        }
        EXPECT_NE(list.find("\nattribute schedulerName = 'root'"), list.npos);
    }
    std::vector<std::unique_ptr<Kel::SlicedText>> texts, abandoned;
    std::string part;
    for (Kind const& kind : kinds(*root)) {
        abandoned.push_back(kind.sliced());
        texts.push_back(kind.sliced());
        for (std::size_t slices = random.below(5); slices > 0; --slices)
            texts.back()->next(part), abandoned.back()->next(part);
    }
    workers = {}, schedulers = {}, crowd = {};
    staying.clear();
    root = nullptr;
    abandoned.clear();
    for (auto const& text : texts)
        EXPECT_FALSE(wholeText(*text).empty());
}
