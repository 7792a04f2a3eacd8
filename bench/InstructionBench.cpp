// Instructions of a task run, as Callgrind counts them: the same each time, whatever else the machine does.
//
// The program runs itself under Valgrind, for a short and for a long load, and takes the difference. The
// clock is moved by hand, by 35 ns a reading, so that the loop's budgets end where they would at full speed.
// The clock of the kernel is not in the count.

#include <bench/Rows.h>
#include <bench/TaskLoad.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

constexpr unsigned shortLoad = 5'000; // the ring of the history is full by then
constexpr unsigned longLoad = 55'000;

timespec clockTime{1000, 0};

template <class Load> void run(std::uint64_t tasks, std::uint64_t runs) {
    Load load(tasks);
    load.run(runs);
}

std::uint64_t countedIn(std::string const& file) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("totals: "))
            return std::strtoull(line.c_str() + 8, nullptr, 10);
    std::fprintf(stderr, "no count: is Valgrind installed?\n");
    std::exit(1);
}

std::uint64_t instructions(std::string const& load, std::uint64_t tasks, std::uint64_t runs) {
    char program[4096] = "";
    if (readlink("/proc/self/exe", program, sizeof program - 1) < 0)
        std::perror("/proc/self/exe");
    std::string const file = "/tmp/keltask-instructions." + std::to_string(getpid());
    std::string const command =
        "valgrind -q --tool=callgrind --log-file=/dev/null --callgrind-out-file=" + file + " '" + program +
        "' " + load + " " + std::to_string(tasks) + " " + std::to_string(runs);
    int const status = std::system(command.c_str());
    std::uint64_t const count = status == 0 ? countedIn(file) : countedIn("");
    std::remove(file.c_str());
    return count;
}

double perRun(std::string const& load, std::uint64_t tasks) {
    return static_cast<double>(instructions(load, tasks, longLoad) - instructions(load, tasks, shortLoad)) /
           (longLoad - shortLoad);
}

} // namespace

/// Stands before the system's own, for the shared libraries too.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t, timespec* time) noexcept {
    clockTime.tv_nsec += 35;
    if (clockTime.tv_nsec >= 1'000'000'000) {
        clockTime.tv_nsec -= 1'000'000'000;
        ++clockTime.tv_sec;
    }
    *time = clockTime;
    return 0;
}

int main(int argc, char** argv) {
    if (argc == 4) { // counted: ours|floor TASKS RUNS
        auto const counted =
            std::string_view(argv[1]) == "ours" ? run<Bench::TaskLoad> : run<Bench::FloorLoad<>>;
        counted(std::strtoull(argv[2], nullptr, 10), std::strtoull(argv[3], nullptr, 10));
        return 0;
    }
    Bench::Options const options(argc, argv);
    for (unsigned const tasks : {1u, 16u})
        Bench::figure("instructions a task run", tasks, perRun("ours", tasks), perRun("floor", tasks));
}
