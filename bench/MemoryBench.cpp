// The memory of an idle task, and of what a dead one leaves behind.

#include <bench/IdleTasks.h>
#include <bench/Rows.h>

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <vector>

namespace {

using Bench::nameOf;
using Bench::newRoot;
using Bench::newTask;
using Mox::Ptr;

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

} // namespace

int main(int argc, char** argv) {
    Bench::Options const options(argc, argv);
    std::string const bits = ", " + std::to_string(8 * sizeof(void*)) + " bit";
    Bench::figure("idle task with a name of 16 characters, bytes" + bits, many, inProcess(bytesOfIdleTask));
    Bench::figure("dead name of 16 characters, bytes" + bits, many, inProcess(bytesOfDeadName));
}
