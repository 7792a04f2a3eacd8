// What it costs that a task is there: making and destroying it, what it leaves behind when it is dead, and
// the pass that resets all statistics.

#include <bench/IdleTasks.h>
#include <bench/Rows.h>

#include <boost/container_hash/hash.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Bench::Comparison;
using Bench::nameOf;
using Bench::newRoot;
using Bench::newTask;
using Bench::Options;
using Mox::Ptr;

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

/// Figures as a task has them, of which some are added and of the others the greatest stays.
struct Figures {
    std::array<std::uint64_t, 6> sums{};
    std::array<std::int64_t, 2> maxima{};

    Figures& operator+=(Figures const& other) {
        std::ranges::transform(sums, other.sums, sums.begin(), std::plus<>());
        std::ranges::transform(maxima, other.maxima, maxima.begin(),
                               [](auto a, auto b) { return std::max(a, b); });
        return *this;
    }
};

struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return boost::hash<std::string_view>()(name); }
};

/// The floor, which is what has to be done: two allocations of the sizes of a task and its record,
/// initialised, the name copied, a registration in a hash table whose links are in the objects, and at the
/// end the figures merged with those of the name.
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
        std::array<char, sizeof(Kel::TaskRecord)> bytes;
        std::array<char, nameSize> name;
    };
    struct Object {
        Object* next;
        Record* record;
        Figures figures;
        std::array<char, sizeof(Kel::Task) - sizeof(Figures) - 2 * sizeof(void*)> rest;
    };

    Object*& bucketOf(Object const* object) {
        std::uint64_t const spread = reinterpret_cast<std::uintptr_t>(object) * 0x9e3779b97f4a7c15u;
        return buckets_[spread >> 32 & (buckets_.size() - 1)];
    }
    Object* make(Mox::String8 const& name) {
        auto* const object = new Object{};
        object->record = new Record{};
        name.copy(object->record->name.data(), nameSize);
        object->next = std::exchange(bucketOf(object), object);
        return object;
    }
    void destroy(Object* object) {
        Object** at = &bucketOf(object);
        while (*at != object)
            at = &(*at)->next;
        *at = object->next;
        merge(*object);
        delete object->record;
        delete object;
    }

    void merge(Object const& object) {
        auto const& bytes = object.record->name;
        std::string_view const name(bytes.begin(), std::ranges::find(bytes, '\0'));
        auto const dead = dead_.find(name);
        if (dead == dead_.end())
            dead_.emplace(name, object.figures);
        else
            dead->second += object.figures;
    }

    std::vector<Object*> buckets_;
    std::vector<Object*> tasks_;
    boost::unordered_flat_map<std::string, Figures, NameHash, std::equal_to<>> dead_;
    Names names_;
};

/// CPU nanoseconds of ours with n alive: one task made and destroyed at once, and one of the n replaced.
struct Churn {
    double one;
    double replaced;
};

Churn creation(Options const& options, std::uint64_t alive) {
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
    Comparison const one = Bench::alternate(options.samples(alive), ones(ours), ones(bare));
    Bench::compare("task created and destroyed, ns", alive, one);

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
    Comparison const replaced = Bench::alternate(options.samples(alive), replacing(ours), replacing(bare));
    Bench::compare("task of n replaced, ns", alive, replaced);
    return {one.ours, replaced.ours};
}

constexpr unsigned many = 1'000'000;

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

void dead(Options const& options) {
    constexpr std::uint64_t names = 200'000;
    Bench::compare(
        "dead name deleted, ns", names,
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

void reset(Options const& options) {
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
    Bench::compare("reset pass, ns a task", many,
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
    Bench::figure("run of the reset pass, us CPU / quantum, p50", many, Bench::median(holds), quantumUsec);
    Bench::figure("run of the reset pass, us CPU / quantum, max", many, Bench::quantile(holds, 1.0),
                  quantumUsec);

    constexpr std::uint64_t names = 100'000;
    fileDeadNames(root, names);
    auto const runs = resetPass(root);
    Bench::figure("the same with 100,000 dead names to delete, max", many, Bench::quantile(runs, 1.0),
                  quantumUsec);
}

} // namespace

int main(int argc, char** argv) {
    Options const options(argc, argv);
    Bench::pinToCore(0);
    Churn const few = creation(options, 1'000);
    creation(options, 100'000);
    Churn const full = creation(options, many);
    Bench::compare("task created and destroyed, n alive / 1,000 alive", many, {full.one, few.one, 0});
    Bench::compare("task of n replaced, n alive / 1,000 alive", many, {full.replaced, few.replaced, 0});
    if (options.quick)
        return 0;
    dead(options);
    reset(options);
}
