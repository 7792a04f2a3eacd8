#include "Fuzz.h"

#include <scheduler/TaskSchedulerPriorityStats.h>

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Fuzz::checkText<Kel::TaskSchedulerPriorityStats>(Fuzz::bytes(data, size));
    return 0;
}
