#include "Fuzz.h"

#include <task/TaskStat.h>

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Fuzz::checkText<Kel::TaskStat::TaskStatus>(Fuzz::bytes(data, size));
    return 0;
}
