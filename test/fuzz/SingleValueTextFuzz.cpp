#include "Fuzz.h"

#include <scheduler/TaskSchedulerQueueStats.h>
#include <task/ProcessId.h>
#include <task/TaskKey.h>

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Mox::String const text = Fuzz::bytes(data, size);
    Fuzz::checkText<Kel::TaskKey>(text);
    Fuzz::checkText<Kel::ProcessId>(text);
    Fuzz::checkText<Kel::TaskPriority>(text);
    Fuzz::checkText<Kel::TaskPriority::PriorityEnum>(text);
    Fuzz::checkText<Kel::TaskSchedulerQueueStats>(text);
    Fuzz::checkText<bool>(text);
    Fuzz::checkText<Mox::U32>(text);
    Fuzz::checkText<Mox::U64>(text);
    Fuzz::checkText<Mox::S32>(text);
    Fuzz::checkText<Mox::S64>(text);
    Fuzz::checkText<double>(text);
    Fuzz::checkText<Mox::String>(text);
    return 0;
}
