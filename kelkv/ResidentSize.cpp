#include "ResidentSize.h"

#include <unistd.h>

#include <fstream>

namespace KelKv {

std::size_t residentSize() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace KelKv
