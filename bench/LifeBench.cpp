// What it costs that a task is there: making and destroying it, its memory, what it leaves behind when it is
// dead, and the pass that resets all statistics.

#include <bench/Sampling.h>

#include <kel/EventLoop.h>
#include <scheduler/TaskSchedulerEventLoop.h>

#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

namespace {

using Bench::Comparison;
using Bench::Options;
using Bench::Table;
using Mox::Ptr;

Ptr<Kel::TaskSchedulerEventLoop> newRoot() {
    return Kel::TaskSchedulerEventLoop::TaskSchedulerEventLoopIs("bench", Kel::EventLoop::EventLoopIs());
}

/// 16 characters.
Mox::String8 nameOf(std::uint64_t i) {
    std::string const digits = std::to_string(i);
    return "connection" + std::string(6 - std::min<std::size_t>(6, digits.size()), '0') + digits;
}

Ptr<Kel::Task> newTask(Ptr<Kel::TaskSchedulerEventLoop> const& root, Mox::String8 const& name) {
    return Kel::Task::TaskIs(root, Kel::TaskPriority::normal, name);
}

// Making and destroying

/// Names that churning tasks take in turn, so that few dead names come together.
class Names {
  public:
    Mox::String8 const& next() { return names_[at_++ % names_.size()]; }

  private:
    std::vector<Mox::String8> const names_ = [] {
        std::vector<Mox::String8> names;
        for (std::uint64_t i = 0; i < 1000; ++i)
            names.push_back(nameOf(i));
        return names;
    }();
    std::size_t at_ = 0;
};

class OurTasks {
  public:
    explicit OurTasks(std::uint64_t alive) {
        for (std::uint64_t i = 0; i < alive; ++i)
            tasks_.push_back(newTask(root_, nameOf(i)));
    }
    void one() { newTask(root_, names_.next()); }
    void replace(std::uint32_t i) {
        tasks_[i] = nullptr;
        tasks_[i] = newTask(root_, names_.next());
    }

  private:
    Ptr<Kel::TaskSchedulerEventLoop> const root_ = newRoot();
    std::vector<Ptr<Kel::Task>> tasks_;
    Names names_;
};

/// The floor: two allocations of the sizes of a task and its record, and a registration in a hash table whose
/// links are in the objects.
class BareTasks {
  public:
    explicit BareTasks(std::uint64_t alive) : buckets_(std::bit_ceil(alive + 1)) {
        for (std::uint64_t i = 0; i < alive; ++i)
            tasks_.push_back(make(nameOf(i)));
    }
    ~BareTasks() {
        for (Object* const object : tasks_)
            destroy(object);
    }
    BareTasks(BareTasks const&) = delete;
    BareTasks& operator=(BareTasks const&) = delete;

    void one() { destroy(make(names_.next())); }
    void replace(std::uint32_t i) {
        destroy(tasks_[i]);
        tasks_[i] = make(names_.next());
    }

  private:
    static constexpr std::size_t nameSize = 16;
    struct Record {
        char bytes[sizeof(Kel::TaskRecord) + nameSize];
    };
    struct Object {
        Object* next;
        Record* record;
        char rest[sizeof(Kel::Task) - 2 * sizeof(void*)];
    };

    Object*& bucketOf(Object const* object) {
        std::uint64_t const spread = reinterpret_cast<std::uintptr_t>(object) * 0x9e3779b97f4a7c15u;
        return buckets_[spread >> 32 & (buckets_.size() - 1)];
    }
    Object* make(Mox::String8 const& name) {
        auto* const object = new Object;
        object->record = new Record;
        name.copy(object->record->bytes, nameSize);
        object->next = std::exchange(bucketOf(object), object);
        return object;
    }
    void destroy(Object* object) {
        Object** at = &bucketOf(object);
        while (*at != object)
            at = &(*at)->next;
        *at = object->next;
        delete object->record;
        delete object;
    }

    std::vector<Object*> buckets_;
    std::vector<Object*> tasks_;
    Names names_;
};

/// CPU nanoseconds of ours with n alive: one task made and destroyed at once, and one of the n replaced.
struct Churn {
    double one;
    double replaced;
};

Churn creation(Table& table, Options const& options, std::uint64_t alive) {
    OurTasks ours(alive);
    BareTasks bare(alive);
    constexpr std::uint64_t operations = 20'000;
    auto const ones = [](auto& tasks) {
        return [&tasks] {
            return Bench::costOf(operations, [&] {
                for (std::uint64_t i = 0; i < operations; ++i)
                    tasks.one();
            });
        };
    };
    Comparison const one = Bench::alternate(options.samples(), ones(ours), ones(bare));
    table.compare("task created and destroyed, ns / 2 allocations, table", alive, one, 3.0);

    auto order = Bench::shuffled(alive);
    order.resize(std::min<std::uint64_t>(alive, operations));
    auto const replacing = [&order](auto& tasks) {
        return [&order, &tasks] {
            return Bench::costOf(order.size(), [&] {
                for (std::uint32_t const i : order)
                    tasks.replace(i);
            });
        };
    };
    Comparison const replaced = Bench::alternate(options.samples(), replacing(ours), replacing(bare));
    table.compare("task of n replaced, ns / 2 allocations, table", alive, replaced, 3.0);
    return {one.ours, replaced.ours};
}

// Memory

double residentBytes() {
    std::ifstream statm("/proc/self/statm");
    double size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// A figure that is taken in a fresh process.
double inProcess(std::function<double()> const& measure) {
    int channel[2];
    if (pipe(channel) != 0)
        std::exit(1);
    pid_t const child = fork();
    double figure = 0;
    if (child == 0) {
        figure = measure();
        _exit(write(channel[1], &figure, sizeof figure) == sizeof figure ? 0 : 1);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0 ||
        read(channel[0], &figure, sizeof figure) != sizeof figure) {
        std::fprintf(stderr, "a measuring process failed\n");
        std::exit(1);
    }
    close(channel[0]);
    close(channel[1]);
    return figure;
}

constexpr unsigned many = 1'000'000;

double bytesOfIdleTask() {
    auto const root = newRoot();
    std::vector<Ptr<Kel::Task>> tasks(many);
    double const before = residentBytes();
    for (unsigned i = 0; i < many; ++i)
        tasks[i] = newTask(root, nameOf(i));
    return (residentBytes() - before) / many;
}

double bytesOfDeadName() {
    auto const root = newRoot();
    newTask(root, nameOf(0));
    double const before = residentBytes();
    for (unsigned i = 0; i < many; ++i)
        newTask(root, nameOf(i));
    return (residentBytes() - before) / many;
}

// The dead

void fileDeadNames(Ptr<Kel::TaskSchedulerEventLoop> const& root, std::uint64_t names) {
    for (std::uint64_t i = 0; i < names; ++i)
        newTask(root, nameOf(i));
}

double deleteDeadNames(std::uint64_t names) {
    auto const root = newRoot();
    fileDeadNames(root, names);
    return Bench::costOf(names, [&] { root->deadTaskStatsDelAll(); });
}

/// The floor: the allocations of an entry and its two names freed, in an order that is not that of
/// allocation.
double freeAsMuch(std::uint64_t names) {
    struct Entry {
        std::pair<Mox::String const, Kel::TaskStat> entry;
        void* links[2];
    };
    std::vector<std::unique_ptr<Entry>> entries;
    for (std::uint64_t i = 0; i < names; ++i) {
        Kel::TaskStat stat;
        stat.taskNameIs(nameOf(i));
        entries.push_back(std::make_unique<Entry>(Entry{{nameOf(i), stat}, {}}));
    }
    auto const order = Bench::shuffled(names);
    return Bench::costOf(names, [&] {
        for (std::uint32_t const i : order)
            entries[i].reset();
    });
}

void dead(Table& table, Options const& options) {
    constexpr std::uint64_t names = 200'000;
    table.compare(
        "dead name deleted, ns / its allocations freed", names,
        Bench::alternate(
            options.samples(), [] { return deleteDeadNames(names); }, [] { return freeAsMuch(names); }));
}

// The reset pass

/// Stops the loop when the pass is through, and keeps the CPU time of each of its runs.
class ResetRuns : public Kel::Task::Notifiee {
  public:
    explicit ResetRuns(Ptr<Kel::TaskSchedulerEventLoop> const& root) : root_(root) {}
    void onTaskCurrentlyRunning() override {
        if (notifier()->taskCurrentlyRunning()) {
            start_ = Bench::cpuNanoseconds();
            return;
        }
        holdsUsec.push_back((Bench::cpuNanoseconds() - start_) / 1e3);
        if (!notifier()->taskScheduled())
            root_->evLoop()->stop();
    }
    std::vector<double> holdsUsec;

  private:
    Ptr<Kel::TaskSchedulerEventLoop> const root_;
    double start_ = 0;
};

constexpr Mox::Seconds resetQuantum = 0.001;

std::vector<double> resetPass(Ptr<Kel::TaskSchedulerEventLoop> const& root) {
    root->resetStats();
    auto const task = root->resetStatsTask()->notifier();
    task->taskQuantumIs(resetQuantum);
    Ptr<ResetRuns> const runs = new ResetRuns(root);
    runs->notifierIs(task);
    root->evLoop()->run();
    return runs->holdsUsec;
}

void reset(Table& table, Options const& options) {
    auto const root = newRoot();
    std::vector<Ptr<Kel::Task>> tasks;
    for (unsigned i = 0; i < many; ++i)
        tasks.push_back(newTask(root, nameOf(i)));
    // The floor: the same words cleared, in the same order, by hand.
    struct Words {
        std::uint64_t before[9], cleared[7], behind[10];
    };
    std::vector<std::unique_ptr<Words>> words;
    for (unsigned i = 0; i < many; ++i)
        words.push_back(std::make_unique<Words>());
    auto const order = Bench::shuffled(many);

    std::vector<double> holds;
    table.compare("reset pass, ns a task / words cleared by hand", many,
                  Bench::alternate(
                      options.samples(),
                      [&] {
                          auto const runs = resetPass(root);
                          holds.insert(holds.end(), runs.begin(), runs.end());
                          double sum = 0;
                          for (double const run : runs)
                              sum += run * 1e3;
                          return sum / many;
                      },
                      [&] {
                          return Bench::costOf(many, [&] {
                              for (std::uint32_t const i : order)
                                  std::fill(std::begin(words[i]->cleared), std::end(words[i]->cleared), 0u);
                          });
                      }));
    double const quantumUsec = resetQuantum * 1e6;
    table.figure("run of the reset pass, us CPU / quantum, p50", many, Bench::median(holds), quantumUsec);
    table.figure("run of the reset pass, us CPU / quantum, max", many, Bench::quantile(holds, 1.0),
                 quantumUsec);

    constexpr std::uint64_t names = 100'000;
    fileDeadNames(root, names);
    auto const runs = resetPass(root);
    table.figure("the same with 100,000 dead names to delete, max", many, Bench::quantile(runs, 1.0),
                 quantumUsec);
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    Table table(options);
    table.figure("idle task with a name of 16 characters, bytes", many, inProcess(bytesOfIdleTask), {},
                 sizeof(void*) == 8 ? 224 : 176);
    table.figure("dead name of 16 characters, bytes", many, inProcess(bytesOfDeadName));
    Churn const few = creation(table, options, 1'000);
    creation(table, options, 100'000);
    Churn const full = creation(table, options, many);
    table.compare("task created and destroyed, n alive / 1,000 alive", many, {full.one, few.one, 0}, 3.0);
    table.compare("task of n replaced, n alive / 1,000 alive", many, {full.replaced, few.replaced, 0}, 3.0);
    dead(table, options);
    reset(table, options);
}
