#include <task/detail/TaskTrace.h>

// Early, so that roots in global variables find it made.
[[gnu::init_priority(200)]] Mox::TraceHandle Kel::taskSchedulerTrace("TaskScheduler");
