#pragma once

#include <mox/TraceHandle.h>

namespace Kel {

/// Where tasks and schedulers trace: the handle "TaskScheduler".
extern Mox::TraceHandle taskSchedulerTrace;

} // namespace Kel
