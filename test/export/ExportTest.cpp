#include <export/ChromeTrace.h>
#include <export/Prometheus.h>

#include <group/TaskGroup.h>
#include <support/FailingSink.h>
#include <support/HandRoot.h>
#include <support/Python.h>
#include <support/RandomRecords.h>
#include <support/TaskReactors.h>

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

    void newScheduler(Ptr<Kel::TaskScheduler>& place) {
        if (random.oneIn(2)) {
            place = Kel::taskGroupFactory(random.oneIn(3) ? name() : "g", priority(), false, root);
            root->taskSchedulerIs(place.ptr(), !random.oneIn(3));
        } else { // the root does not list it
            place = new TestSupport::HandScheduler(name(), root.ptr());
            place->hasNotificationActiveIs(true);
        }
    }
    void newTask(Worker& worker) {
        Ptr<Kel::TaskScheduler> scheduler = schedulers[random.below(schedulers.size())];
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
        stat.taskNameIs(name());
        stat.taskTotalRunTimeIs(oneOf({0.125, Mox::endOfTime, -Mox::endOfTime, std::nan("")}));
        root->deadTaskStatsInc(stat.taskName(), stat);
    }
    void clockGoesBack() {
        Ptr<TestSupport::OnRun> const back =
            new TestSupport::OnRun(task("back"), [this] { steady.advance(-unit); });
        back->notifier()->taskRunFromTest();
        steady.advance(unit);
    }
    /// The work of every task.
    void run() {
        steady.advance(time(7));
        if (++depth < 4 && random.oneIn(4))
            change(workers[random.below(workers.size())]);
        if (random.oneIn(looking))
            look();
        if (random.oneIn(clearing))
            root->clearHistory();
        if (random.oneIn(40))
            root->resetStatsTaskDel(); // which may be what runs around it
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
    void step() {
        auto& scheduler = schedulers[random.below(schedulers.size())];
        change(workers[random.below(workers.size())]);
        steady.advance(time(3));
        if (random.oneIn(20))
            scheduler ? void(scheduler = nullptr) : newScheduler(scheduler);
        if (random.oneIn(100))
            root->suspendedIs(!root->suspended());
        if (random.oneIn(100))
            newDead();
        if (random.oneIn(100))
            clockGoesBack();
        if (random.oneIn(100))
            root->resetStats();
        if (dynamic_cast<TestSupport::HandScheduler*>(scheduler.ptr()) && random.oneIn(4))
            scheduler->handleSchedulerRun();
        else if (random.oneIn(2))
            root->handleSchedulerRun();
    }

    static std::string factsOf(std::pair<Kel::TaskScheduler const*, bool> const& entry) {
        if (!entry.second)
            return "None";
        Kel::TaskScheduler const& scheduler = *entry.first;
        std::vector<Kel::TaskStat> living, dead;
        scheduler.getTaskStats(&living, true);
        scheduler.getDeadTaskStats(&dead, true);
        auto const statText = [](Kel::TaskStat const& stat) { return std::string(valueToStrep(stat)); };
        auto const counts = list(std::array{0u, 1u, 2u, 3u, 4u}, [&](Mox::U32 number) {
            TaskPriority const p = TaskPriority::PriorityEnumInstance(number);
            return tuple(scheduler.runnableTaskCount(p), scheduler.tasksPerPriority(p),
                         scheduler.deadTasksPerPriority(p));
        });
        return "(" + valueToStrep(scheduler.schedulerName()) + "," +
               valueToStrep(scheduler.schedulerMaxSchedulerSlip()) + "," + counts + "," +
               list(living, statText) + "," + list(dead, statText) + ")";
    }
    std::string facts() {
        std::vector<Kel::TaskRecord const*> tasks;
        std::string events;
        for (auto at = root->history().end(); at != root->history().begin();) {
            auto const* const task = (--at)->task().ptr();
            auto const place = std::find(tasks.begin(), tasks.end(), task) - tasks.begin();
            if (task && place == std::ssize(tasks))
                tasks.push_back(task);
            events += tuple(static_cast<Mox::U32>(at->eventType()),
                            Mox::S64{at->timeStamp().time_since_epoch().count()},
                            task ? Mox::S64{place} : Mox::S64{-1}) +
                      ",";
        }
        auto const ofTask = [](Kel::TaskRecord const* task) {
            return tuple(task->taskName(), task->schedulerName(),
                         Mox::U32{task->taskPriority().numericValue()}, Mox::S64{task->taskQuantum().count()},
                         task->isAlive());
        };
        return "(" + valueToStrep(root->schedulerName()) + "," + std::to_string(steady.now().count()) + ",[" +
               events + "]," + list(tasks, ofTask) + "," + list(root->taskScheduler(), factsOf) + ")";
    }
    void look() {
        std::ostringstream trace, all, some;
        // Sums of eighths of a second are exact: whose is the greatest does not depend on their order.
        std::size_t const namesMax = unit == 125ms ? random.below(25) : 200;
        Kel::writeChromeTrace(root, trace);
        Kel::writePrometheus(root, all);
        Kel::writePrometheus(root, some, namesMax);
        looks << "(" << facts() << "," << valueToStrep(trace.str()) << ",{200:" << valueToStrep(all.str())
              << "," << namesMax << ":" << valueToStrep(some.str()) << "})\n";
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

TEST_F(ExportTest, IsWhatTheModelsMakeOfTheHistoryAndTheStatistics) {
    for (int program = 0; program < 40; ++program) {
        workers = {};
        schedulers = {};
        root = TestSupport::HandRoot::HandRootIs(name());
        unit = oneOf<std::chrono::nanoseconds>({125ms, 337ns, 1ns});
        bool const fillsTheRing = program == 0, hasManyNames = program == 1;
        clearing = !fillsTheRing && random.oneIn(2) ? 40 : 100000;
        looking = fillsTheRing ? 100000 : 30;
        for (std::size_t i = fillsTheRing ? 12000 : random.below(150); i > 0; --i)
            step();
        for (int i = 0; hasManyNames && i < 220; ++i)
            task("n" + std::to_string(i), priority());
        look();
    }
    for (auto const& line : TestSupport::python("export/check_export.py", looks.str()))
        ADD_FAILURE() << line;
}

/// Nothing of the tree is looked at when the sink has got the first byte, so that a sink may end it.
TEST_F(ExportTest, ASinkThatEndsTheTreeGetsTheWholeTextAndOneThatFailsIsAnError) {
    struct EndsTheTree : std::stringbuf {
        explicit EndsTheTree(std::function<void()> call) : end(std::move(call)) {}
        std::streamsize xsputn(char const* text, std::streamsize size) override {
            end();
            return std::stringbuf::xsputn(text, size);
        }
        std::function<void()> const end;
    };
    struct FailsAtTheEnd : std::stringbuf {
        int sync() override { return -1; }
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a forked child may touch the tree
    using Write = void (*)(Ptr<Kel::TaskSchedulerRoot const> const&, std::ostream&);
    for (Write const write : {Write([](auto const&r, auto&sink) { Kel::writeChromeTrace(r, sink); }),
                              Write([](auto const&r, auto&sink) { Kel::writePrometheus(r, sink); })}) {
        newTask(workers[0]);
        workers[0].task->scheduleTask();
        std::ostringstream expected;
        write(root, expected);
        FailsAtTheEnd buffer;
        std::ostream unflushed(&buffer);
        TestSupport::FailingSink full(100);
        for (std::ostream* const sink : {&unflushed, static_cast<std::ostream*>(&full)})
            EXPECT_THROW(write(root, *sink), std::ios_base::failure);
        EndsTheTree ends([&] {
            workers[0] = {};
            root->clearHistory();
        });
        std::ostream sink(&ends);
        write(root, sink);
        EXPECT_EQ(ends.str(), expected.str());
        EXPECT_DEATH(std::thread([&] { write(root, expected); }).join(), "schedulerThread");
    }
}
